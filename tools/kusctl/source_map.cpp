// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// tinyxml2 keeps one copy of the source and makes names and texts of it in place, so that the
// distance between two names is that in the file. Where the first one stands says the rest: no
// second parser, which would have to take all that this one takes.

#include "tools/kusctl/source_map.h"

#include <string.h>

#include <algorithm>
#include <utility>

namespace android::kus::tools {

using tinyxml2::XMLElement;
using tinyxml2::XMLNode;

namespace {

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
constexpr std::string_view kSpace = " \t\n\v\f\r";

bool startsAt(std::string_view source, size_t offset, std::string_view text) {
    return source.compare(offset, text.size(), text) == 0;
}

size_t behindSpace(std::string_view source, size_t offset) {
    return std::min(source.find_first_not_of(kSpace, offset), source.size());
}

// Where the library begins: behind blanks, and one mark that follows them.
size_t behindMark(std::string_view source) {
    const size_t mark = behindSpace(source, 0);
    return startsAt(source, mark, kByteOrderMark) ? mark + kByteOrderMark.size() : mark;
}

// Where the text begins that is the value of the document's first node.
size_t firstValue(std::string_view source, const XMLNode& node) {
    const size_t begin = behindMark(source);
    const size_t markup = behindSpace(source, begin);
    if (node.ToComment() != nullptr) return markup + strlen("<!--");
    if (node.ToDeclaration() != nullptr) return markup + strlen("<?");
    if (node.ToUnknown() != nullptr) return markup + strlen("<!");
    if (node.ToText() != nullptr) {
        return node.ToText()->CData() ? markup + strlen("<![CDATA[") : begin;
    }
    // An end tag that ends itself is an element, too.
    return std::min(source.find_first_not_of("</ \t\n\v\f\r", markup), source.size());
}

// In document order.
void addElements(const XMLNode& parent, std::vector<const XMLElement*>* elements) {
    for (const XMLElement* child = parent.FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        elements->push_back(child);
        addElements(*child, elements);
    }
}

// Positions of ascending offsets, in one walk over the source.
class PositionWalk {
  public:
    PositionWalk(std::string_view source, size_t begin)
        : source_(source), next_(begin), lineStart_(begin) {}

    Position at(size_t offset) {
        for (; next_ < offset; ++next_) {
            if (source_[next_] != '\n') continue;
            ++line_;
            lineStart_ = next_ + 1;
        }
        return {line_, static_cast<int>(offset - lineStart_) + 1};
    }

  private:
    const std::string_view source_;
    size_t next_;
    size_t lineStart_;
    int line_ = 1;
};

}  // namespace

SourceMap::SourceMap(std::string source, const tinyxml2::XMLDocument& document)
    : source_(std::move(source)) {
    const XMLNode* first = document.FirstChild();
    if (!document.Error() && first != nullptr) locate(document, first->Value());
    // Nobody counts the mark's bytes as columns.
    if (startsAt(source_, 0, kByteOrderMark)) source_.erase(0, kByteOrderMark.size());
}

void SourceMap::locate(const tinyxml2::XMLDocument& document, const char* first) {
    const size_t base = firstValue(source_, *document.FirstChild());
    std::vector<const XMLElement*> elements;
    addElements(document, &elements);
    PositionWalk walk(source_, startsAt(source_, 0, kByteOrderMark) ? kByteOrderMark.size() : 0);
    for (const XMLElement* element : elements) {
        const size_t name = base + (element->Value() - first);
        positions_[element] = walk.at(source_.rfind('<', name));
    }
}

Position SourceMap::of(const XMLElement& element) const {
    return positions_.at(&element);
}

Position SourceMap::firstOn(int number) const {
    const std::string_view text = line(number);
    size_t column = text.find('<');
    if (column == std::string_view::npos) column = text.find_first_not_of(" \t\r");
    if (column == std::string_view::npos) column = 0;
    return {std::max(number, 1), static_cast<int>(column) + 1};
}

std::string_view SourceMap::line(int number) const {
    std::string_view rest = source_;
    for (; number > 1; --number) {
        const size_t end = rest.find('\n');
        if (end == std::string_view::npos) return {};
        rest.remove_prefix(end + 1);
    }
    return rest.substr(0, rest.find('\n'));
}

}  // namespace android::kus::tools
