// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// kus-hotplug: where there is no platform framework, has kusd judge what is plugged in.
//
// One thread does all: it waits for uevents, for the daemon's death and for signals, hands the
// events to the agent one by one, and looks for the daemon while there is none. Binder threads
// only deliver death notices. With --closed another thread closes root hubs that come (RootHubs).

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <android-base/logging.h>
#include <android-base/unique_fd.h>
#include <binder/ProcessState.h>

#include "tools/agent.h"
#include "tools/event_writer.h"
#include "tools/options.h"
#include "tools/root_hubs.h"
#include "tools/service.h"
#include "tools/uevent_monitor.h"

namespace android::kus::tools {
namespace {

constexpr char kUsage[] =
        "usage: kus-hotplug [--json] [--once | --closed] [--wait SECONDS]\n"
        "\n"
        "Has kusd judge every USB device and every USB input device, those present and those\n"
        "that come, tells it when they go, and inhibits refused input devices.\n"
        "\n"
        "  --json          JSON lines instead of text\n"
        "  --once          judge what is present and end\n"
        "  --closed        no device gets a driver before it is allowed\n"
        "  --wait SECONDS  give up if the daemon's service is not there within SECONDS\n"
        "                  (default: wait for it without end; with --once 10)\n"
        "  --help          this text\n"
        "\n"
        "Without --closed the kernel gives each device its drivers at once, and the daemon takes\n"
        "them from a refused one some milliseconds later. With it the root hubs are told to start\n"
        "all interfaces closed (interface_authorized_default 0). Those of an allowed device are\n"
        "opened, those of hubs at once; a device of HID interfaces alone is opened to usbhid for\n"
        "the question, which depends on what that driver makes of it. Everything present but hubs\n"
        "is closed at the start and asked about like new.\n"
        "The end of kus-hotplug or of the daemon opens nothing: the root hubs and what is closed\n"
        "stay closed, and so do devices that come meanwhile. What is open stays open. To go back:\n"
        "  for hub in /sys/bus/usb/devices/usb*; do echo 1 > $hub/interface_authorized_default; "
        "done\n"
        "and plug the devices in again.\n"
        "\n"
        "exit status: 0 ended by SIGTERM or SIGINT, or --once is done; 1 no uevents to be had, or\n"
        "a root hub that cannot be closed; 2 usage; 3 no service in time, or it died during "
        "--once\n";

enum ExitStatus { kDone = 0, kNoKernel = 1, kUsageError = 2, kNoService = 3 };

constexpr int32_t kDefaultWaitOnce = 10;
constexpr int kServicePollMs = 200;

struct Settings {
    EventWriter::Format format = EventWriter::Format::kText;
    bool once = false;
    bool closed = false;
    bool help = false;
    // Nothing: without end.
    std::optional<std::chrono::seconds> wait;
};

Parsed<Settings> parseSettings(const std::vector<std::string>& args) {
    const auto options = Options::parse(args, {"json", "once", "closed", "help"}, {"wait"});
    if (!options.has_value()) return wrong(options.error());
    if (!options->words().empty()) return wrong("unknown word " + options->words()[0]);
    if (options->has("once") && options->has("closed")) {
        return wrong("--closed wants an agent that stays: not with --once");
    }
    const auto wait = options->number("wait", kDefaultWaitOnce, 0);
    if (!wait.has_value()) return wrong(wait.error());

    Settings settings;
    if (options->has("json")) settings.format = EventWriter::Format::kJson;
    settings.once = options->has("once");
    settings.closed = options->has("closed");
    settings.help = options->has("help");
    if (settings.once || options->has("wait")) settings.wait = std::chrono::seconds(*wait);
    return settings;
}

void printLine(const std::string& line) {
    std::cout << line << std::endl;
}

// SIGTERM and SIGINT as a descriptor. To be made before there are other threads, which would
// take the signals otherwise.
base::unique_fd blockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    base::unique_fd fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (fd.get() == -1 || sigprocmask(SIG_BLOCK, &signals, nullptr) == -1) {
        PLOG(FATAL) << "Cannot take signals from a descriptor";
    }
    return fd;
}

class Hotplug {
  public:
    /** |rootHubs| with --closed only. */
    Hotplug(const Settings& settings, std::unique_ptr<UeventMonitor> monitor,
            std::unique_ptr<RootHubs> rootHubs, int signalFd)
        : settings_(settings),
          monitor_(std::move(monitor)),
          rootHubs_(std::move(rootHubs)),
          signalFd_(signalFd),
          writer_(settings.format, printLine),
          agent_("/sys", &writer_, settings.closed ? Agent::Mode::kClosed : Agent::Mode::kOpen) {}

    ExitStatus run() {
        if (settings_.closed) agent_.closePresent();
        const auto start = Clock::now();
        while (true) {
            if (!agent_.connected()) tryToConnect();
            if (settings_.once && connectedBefore_) {
                return agent_.connected() ? kDone : kNoService;
            }
            if (!connectedBefore_ && settings_.wait && Clock::now() - start >= *settings_.wait) {
                std::cerr << "kus-hotplug: the daemon's service is not there\n";
                return kNoService;
            }
            switch (await()) {
                case Wake::kEnd:
                    return kDone;
                case Wake::kFailure:
                    std::cerr << "kus-hotplug: " << rootHubs_->error() << "\n";
                    return kNoKernel;
                case Wake::kWork:
                    break;
            }
            followService();
            followUevents();
        }
    }

  private:
    enum class Wake { kWork, kEnd, kFailure };

    void tryToConnect() {
        const sp<IKUsbService> service = link_.find();
        if (service == nullptr) {
            sayOnceThatItIsAwaited();
            return;
        }
        saidWaiting_ = false;
        agent_.connect(service, connectedBefore_ ? RescanReason::kService : RescanReason::kStart);
        if (!connectedBefore_ && !settings_.once) writer_.ready();
        connectedBefore_ = true;
    }

    void sayOnceThatItIsAwaited() {
        if (saidWaiting_) return;
        saidWaiting_ = true;
        std::cerr << "kus-hotplug: waiting for the daemon's service\n";
    }

    Wake await() const {
        // poll() passes over descriptors below 0.
        const int failureFd = rootHubs_ == nullptr ? -1 : rootHubs_->failureFd();
        pollfd fds[] = {{signalFd_, POLLIN, 0},
                        {failureFd, POLLIN, 0},
                        {link_.noticeFd(), POLLIN, 0},
                        {monitor_->fd(), POLLIN, 0}};
        if (TEMP_FAILURE_RETRY(poll(fds, std::size(fds), pollTimeoutMs())) == -1) {
            PLOG(FATAL) << "Cannot wait for events";
        }
        if (fds[0].revents != 0) return Wake::kEnd;
        return fds[1].revents != 0 ? Wake::kFailure : Wake::kWork;
    }

    int pollTimeoutMs() const {
        if (!events_.empty()) return 0;
        return agent_.connected() ? -1 : kServicePollMs;
    }

    void followService() {
        link_.clearNotices();
        if (link_.dead()) agent_.disconnect();
    }

    // One event a turn, everything received first: the socket's buffer is the scarce one, and the
    // time of receipt should be that of the event.
    void followUevents() {
        if (!monitor_->receive(&events_)) startOver();
        if (events_.empty()) return;
        agent_.handle(events_.front());
        events_.pop_front();
    }

    // The kernel makes a device visible before it tells of its coming, and invisible before it
    // tells of its going: what is received before a rescan adds nothing to it.
    void startOver() {
        events_.clear();
        monitor_ = UeventMonitor::open();
        if (monitor_ == nullptr) PLOG(FATAL) << "Cannot listen to uevents any more";
        agent_.rescan(RescanReason::kOverflow);
    }

    const Settings settings_;
    std::unique_ptr<UeventMonitor> monitor_;
    const std::unique_ptr<RootHubs> rootHubs_;
    const int signalFd_;
    const EventWriter writer_;
    Agent agent_;
    ServiceLink link_;
    std::deque<Uevent> events_;
    bool connectedBefore_ = false;
    bool saidWaiting_ = false;
};

int hotplugMain(const std::vector<std::string>& args) {
    const auto settings = parseSettings(args);
    if (!settings.has_value()) {
        std::cerr << "kus-hotplug: " << settings.error() << "\n" << kUsage;
        return kUsageError;
    }
    if (settings->help) {
        std::cout << kUsage;
        return kDone;
    }

    const base::unique_fd signalFd = blockEndSignals();
    // Before the first look at what is present: nothing may come in between.
    std::unique_ptr<UeventMonitor> monitor = UeventMonitor::open();
    if (monitor == nullptr) {
        std::cerr << "kus-hotplug: cannot listen to uevents: " << strerror(errno) << "\n";
        return kNoKernel;
    }
    if (!haveBinder()) return kNoService;
    std::unique_ptr<RootHubs> rootHubs;
    if (settings->closed) {
        std::string error;
        rootHubs = RootHubs::keepClosed(&error);
        if (rootHubs == nullptr) {
            std::cerr << "kus-hotplug: " << error << "\n";
            return kNoKernel;
        }
    }
    ProcessState::self()->startThreadPool();
    return Hotplug(*settings, std::move(monitor), std::move(rootHubs), signalFd.get()).run();
}

}  // namespace
}  // namespace android::kus::tools

int main(int argc, char** argv) {
    return android::kus::tools::hotplugMain({argv + 1, argv + argc});
}
