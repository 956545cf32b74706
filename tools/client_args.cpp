// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

#include "tools/client_args.h"

#include <map>
#include <set>

namespace android::kus::tools {
namespace {

using Command = ClientRequest::Command;

const std::set<std::string> kDeviceOptions = {"wait",       "id",  "name", "class",
                                              "interfaces", "vid", "pid",  "type"};

Parsed<DeviceInfo> parseDevice(const Options& options) {
    const auto id = options.number("id", 0);
    const auto deviceClass = options.number("class", 0);
    const auto interfaces = options.numbers("interfaces");
    const auto vendorId = options.number("vid", 0);
    const auto productId = options.number("pid", 0);
    const auto type = options.number("type", 0);
    for (const auto* field : {&id, &deviceClass, &vendorId, &productId, &type}) {
        if (!field->has_value()) return wrong(field->error());
    }
    if (!interfaces.has_value()) return wrong(interfaces.error());
    if (!options.has("id")) return wrong("--id is needed");

    DeviceInfo device;
    device.deviceName = options.text("name", "");
    device.deviceId = *id;
    device.deviceClass = *deviceClass;
    device.interfaceClasses = *interfaces;
    device.vendorId = *vendorId;
    device.productId = *productId;
    device.deviceType = *type;
    return device;
}

Parsed<ClientRequest> parseDecide(const Options& options, ClientRequest request) {
    const auto device = parseDevice(options);
    if (!device.has_value()) return wrong(device.error());
    request.device = *device;
    return request;
}

Parsed<ClientRequest> parseRemove(const Options& options, ClientRequest request) {
    const auto status = options.number("status", 0);
    if (!status.has_value()) return wrong(status.error());
    request.status = *status;
    return parseDecide(options, std::move(request));
}

Parsed<ClientRequest> parseWatch(const Options& options, ClientRequest request) {
    const auto registrations = options.number("register", 1, 0);
    const auto count = options.number("count", 0, 0);
    if (!registrations.has_value()) return wrong(registrations.error());
    if (!count.has_value()) return wrong(count.error());
    request.registrations = *registrations;
    request.count = *count;
    request.readsStdin = !options.has("no-stdin");
    return request;
}

Parsed<ClientRequest> parseReset(const Options& options, ClientRequest request) {
    if (options.words().size() != 1) return wrong("reset takes one number of milliseconds");
    const auto delayMs = parseNumber(options.words()[0]);
    if (!delayMs.has_value()) return wrong(delayMs.error());
    request.delayMs = *delayMs;
    return request;
}

Parsed<ClientRequest> parseList(const Options& options, ClientRequest request) {
    request.json = options.has("json");
    return request;
}

Parsed<ClientRequest> parseDump(const Options& options, ClientRequest request) {
    request.dumpArgs = options.words();
    return request;
}

Parsed<ClientRequest> parseNothing(const Options& /*options*/, ClientRequest request) {
    return request;
}

struct Syntax {
    Command command;
    std::set<std::string> flags;
    std::set<std::string> valued;
    bool takesWords;
    Parsed<ClientRequest> (*parse)(const Options&, ClientRequest);
};

std::set<std::string> withStatus(std::set<std::string> options) {
    options.insert("status");
    return options;
}

const std::map<std::string, Syntax>& syntaxes() {
    static const auto& syntaxes = *new std::map<std::string, Syntax>{
            {"ping", {Command::kPing, {}, {"wait"}, false, parseNothing}},
            {"list", {Command::kList, {"json"}, {"wait"}, false, parseList}},
            {"decide", {Command::kDecide, {}, kDeviceOptions, false, parseDecide}},
            {"remove", {Command::kRemove, {}, withStatus(kDeviceOptions), false, parseRemove}},
            {"watch",
             {Command::kWatch, {"no-stdin"}, {"wait", "register", "count"}, false, parseWatch}},
            {"reset", {Command::kReset, {}, {"wait"}, true, parseReset}},
            {"dump", {Command::kDump, {}, {"wait"}, true, parseDump}},
            {"help", {Command::kHelp, {}, {}, false, parseNothing}},
            {"--help", {Command::kHelp, {}, {}, false, parseNothing}},
    };
    return syntaxes;
}

}  // namespace

const char kClientUsage[] =
        "usage: kus-client COMMAND [--wait SECONDS] ...\n"
        "\n"
        "  ping                    is the daemon there? prints pong\n"
        "  list [--json]           the judged devices, one line each\n"
        "  decide DEVICE           has DEVICE judged; prints allowed or refused\n"
        "  remove DEVICE [--status N]\n"
        "                          reports DEVICE as removed (N = 0, the default) or added\n"
        "  watch [--register K] [--count N] [--no-stdin]\n"
        "                          registers a callback K times (default 1), prints registered,\n"
        "                          then each event as a JSON line; ends after N events, when\n"
        "                          standard input ends, or on a signal. Standard input takes the\n"
        "                          lines register, unregister and unregister-unknown;\n"
        "                          --no-stdin leaves it alone\n"
        "  reset MS                has devices enumerate again (0 or less: plain reset; else\n"
        "                          virtual undock and dock with that delay)\n"
        "  dump [ARG...]           the daemon's dump; -- before an ARG that begins with --\n"
        "  help                    this text\n"
        "\n"
        "DEVICE: --id N [--name TEXT] [--class N] [--interfaces N,N...] [--vid N] [--pid N]\n"
        "        [--type 0|1]      0 = USB (default), 1 = input; numbers are decimal or 0x...\n"
        "--wait SECONDS: wait for the daemon's service that long (default 0)\n"
        "\n"
        "exit status: 0 done, whatever the verdict; 1 the daemon did not answer a call, or died\n"
        "during watch; 2 usage; 3 no service\n";

Parsed<ClientRequest> parseClientArgs(const std::vector<std::string>& args) {
    if (args.empty()) return wrong("a command is needed");
    const auto syntax = syntaxes().find(args[0]);
    if (syntax == syntaxes().end()) return wrong("unknown command " + args[0]);
    const Syntax& known = syntax->second;
    const auto options = Options::parse({args.begin() + 1, args.end()}, known.flags, known.valued);
    if (!options.has_value()) return wrong(options.error());
    if (!known.takesWords && !options->words().empty()) {
        return wrong("unknown word " + options->words()[0]);
    }
    const auto wait = options->number("wait", 0, 0);
    if (!wait.has_value()) return wrong(wait.error());

    ClientRequest request;
    request.command = known.command;
    request.wait = std::chrono::seconds(*wait);
    return known.parse(*options, request);
}

}  // namespace android::kus::tools
