// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include <tinyxml2.h>

namespace android::kus::tools {

/** A place in a file: both count from 1, columns in bytes; a byte order mark has none. */
struct Position {
    int line = 1;
    int column = 1;

    bool operator==(const Position& other) const {
        return line == other.line && column == other.column;
    }
    bool operator<(const Position& other) const {
        return line != other.line ? line < other.line : column < other.column;
    }
};

/**
 * Where the elements of a document stand in its source: tinyxml2 tells lines, and more than one
 * element may stand on a line. Keeps its own copy of the source; pointers to elements stay the
 * document's.
 */
class SourceMap {
  public:
    /** |document| is what tinyxml2 made of |source|. One that did not load has no elements. */
    SourceMap(std::string source, const tinyxml2::XMLDocument& document);

    /** Where the element's '<' is. The element must be the document's. */
    Position of(const tinyxml2::XMLElement& element) const;

    /** The first '<' of a line, or its first character that is not blank. */
    Position firstOn(int line) const;

    /** One line of the source, without its end; empty behind the last one. */
    std::string_view line(int number) const;

  private:
    // |first|: the value of the document's first node.
    void locate(const tinyxml2::XMLDocument& document, const char* first);

    std::string source_;
    std::map<const tinyxml2::XMLElement*, Position> positions_;
};

}  // namespace android::kus::tools
