// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// vm-channel: the virtual terminal's side of its command channel.
//
// The harness on the machine (vm/terminal.py) and this program speak over one virtio serial port.
// Every message is a frame, so that any number of tasks share the port and no byte of a command's
// output can be taken for the protocol:
//
//     u32 payload length | u32 task | u32 type | payload        (little endian)
//
// The harness picks the task numbers. A task is one of
//   - a command: /bin/sh -c TEXT in a session of its own, on pipes or on a pseudo terminal;
//   - a followed file: what it holds now and whatever is appended to it later;
//   - the kernel's uevents, one frame each, with the field MONOTONIC at the end: the time of their
//     receipt by the clock of that name, in seconds.
// Each ends with exactly one kExit or kFailed frame. One poll loop in one thread, and another
// thread that only gives the uevents their times; writes to the port block, which slows a talkative
// command down instead of losing its output.
//
// A command is over when its process is: what its background jobs hold open is closed, so a job
// that is to outlive its command must have its output redirected. Whatever any process wrote, to a
// followed file or for another task, before a command ended is sent before that command's kExit.

#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <pthread.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

enum FrameType : uint32_t {
    // From the harness.
    kRun = 1,       // u8 1 for a pseudo terminal, then the command's text
    kInput = 2,     // bytes for the command's standard input
    kInputEnd = 3,  // close the command's standard input
    kSignal = 4,    // u32 signal for the command's whole process group
    kFollow = 5,    // path of a file, created if it is not there
    kUevents = 6,   // no payload
    kStop = 7,      // end a followed file or the uevents
    kResize = 8,    // u16 rows, u16 columns of the pseudo terminal
    kPing = 9,      // any bytes, sent back as they are
    // To the harness.
    kOutput = 101,  // bytes
    kErrors = 102,  // bytes of the command's standard error
    kExit = 103,    // i32 status as waitpid gives it
    kFailed = 104,  // text: why the task could not be started or go on
    kPong = 105,    // the bytes of kPing
};

constexpr size_t kHeaderSize = 3 * sizeof(uint32_t);
constexpr size_t kChunk = 32768;
// As many reads as a full pipe takes; what comes later was not in it when they began.
constexpr int kReadsPerPipe = 65536 / kChunk + 1;
constexpr uint32_t kLargestPayload = 16 * 1024 * 1024;
constexpr int kUeventBuffer = 8 * 1024 * 1024;

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

  private:
    int fd_ = -1;
};

[[noreturn]] void Die(const char* what) {
    std::cerr << "vm-channel: " << what << ": " << strerror(errno) << std::endl;
    exit(1);
}

void Handle(int signal_number, sighandler_t handler) {
    if (signal(signal_number, handler) == SIG_ERR) Die("signal");
}

void WriteFully(int fd, const void* data, size_t size) {
    auto bytes = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t written = TEMP_FAILURE_RETRY(write(fd, bytes, size));
        if (written < 0) Die("cannot write to the port");
        bytes += written;
        size -= written;
    }
}

class Port {
  public:
    explicit Port(Fd fd) : fd_(std::move(fd)) {}
    int fd() const { return fd_.get(); }

    void Send(uint32_t task, FrameType type, const void* data, size_t size) const {
        const uint32_t header[] = {static_cast<uint32_t>(size), task, type};
        std::string frame(reinterpret_cast<const char*>(header), kHeaderSize);
        frame.append(static_cast<const char*>(data), size);
        WriteFully(fd_.get(), frame.data(), frame.size());
    }

    void Send(uint32_t task, FrameType type, const std::string& payload) const {
        Send(task, type, payload.data(), payload.size());
    }

    void SendExit(uint32_t task, int32_t status) const {
        Send(task, kExit, &status, sizeof(status));
    }

    void SendFailure(uint32_t task, const char* what) const {
        Send(task, kFailed, std::string(what) + ": " + strerror(errno));
    }

  private:
    Fd fd_;
};

// One unit of work under a task number. Poll() adds the descriptors it waits for; Ready() is called
// with the same descriptors after poll and returns false when the task is over.
class Task {
  public:
    virtual ~Task() = default;
    virtual void Poll(std::vector<pollfd>* fds) const = 0;
    virtual bool Ready(const pollfd& event) = 0;
    virtual void Input(const std::string&) {}
    virtual void InputEnd() {}
    virtual void Signal(int) {}
    virtual void Resize(uint16_t, uint16_t) {}
    // Sends what is waiting to be sent.
    virtual void Flush() {}
    // Sends kExit and returns true if `pid` was this task's process.
    virtual bool Reaped(pid_t, int) { return false; }
};

class Command : public Task {
  public:
    // Sends kFailed and returns nothing if the process cannot be made.
    static std::unique_ptr<Command> Start(const Port& port, uint32_t task, const std::string& text,
                                          bool terminal) {
        auto command = std::unique_ptr<Command>(new Command(port, task));
        const bool started = terminal ? command->ForkOnTerminal(text) : command->ForkOnPipes(text);
        if (!started) {
            port.SendFailure(task, "cannot start the command");
            return nullptr;
        }
        return command;
    }

    void Poll(std::vector<pollfd>* fds) const override {
        if (output_.ok()) {
            fds->push_back({output_.get(), POLLIN, 0});
            if (terminal_ && !pending_.empty()) fds->back().events |= POLLOUT;
        }
        if (errors_.ok()) fds->push_back({errors_.get(), POLLIN, 0});
        if (input_.ok() && !pending_.empty()) fds->push_back({input_.get(), POLLOUT, 0});
    }

    bool Ready(const pollfd& event) override {
        const int fd = event.fd;
        if (event.revents & POLLOUT) WritePending(fd);
        if (fd == output_.get() && (event.revents & (POLLIN | POLLHUP | POLLERR))) {
            Forward(&output_, kOutput);
        } else if (fd == errors_.get() && event.revents) {
            Forward(&errors_, kErrors);
        } else if (fd == input_.get() && (event.revents & POLLERR)) {
            input_.reset();
        }
        return true;
    }

    void Input(const std::string& bytes) override { pending_ += bytes; }

    void InputEnd() override {
        input_ended_ = true;
        if (pending_.empty()) input_.reset();
    }

    void Signal(int number) override { kill(-pid_, number); }

    void Resize(uint16_t rows, uint16_t columns) override {
        const winsize size = {rows, columns, 0, 0};
        if (terminal_) ioctl(output_.get(), TIOCSWINSZ, &size);
    }

    void Flush() override {
        for (int i = 0; i < kReadsPerPipe && output_.ok() && Forward(&output_, kOutput); ++i) {
        }
        for (int i = 0; i < kReadsPerPipe && errors_.ok() && Forward(&errors_, kErrors); ++i) {
        }
    }

    bool Reaped(pid_t pid, int status) override {
        if (pid != pid_) return false;
        port_.SendExit(task_, status);
        return true;
    }

  private:
    Command(const Port& port, uint32_t task) : port_(port), task_(task) {}

    [[noreturn]] static void Exec(const std::string& text) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        Handle(SIGPIPE, SIG_DFL);
        // Ignored in everything that a shell starts in the background, as init started this.
        Handle(SIGINT, SIG_DFL);
        Handle(SIGQUIT, SIG_DFL);
        execl("/bin/sh", "sh", "-c", text.c_str(), nullptr);
        _exit(127);
    }

    bool ForkOnPipes(const std::string& text) {
        int in[2], out[2], err[2];
        if (pipe2(in, O_CLOEXEC) != 0) return false;
        Fd child_in(in[0]);
        input_ = Fd(in[1]);
        if (pipe2(out, O_CLOEXEC) != 0) return false;
        output_ = Fd(out[0]);
        Fd child_out(out[1]);
        if (pipe2(err, O_CLOEXEC) != 0) return false;
        errors_ = Fd(err[0]);
        Fd child_err(err[1]);
        for (const Fd* ours : {&input_, &output_, &errors_}) {
            fcntl(ours->get(), F_SETFL, O_NONBLOCK);
        }
        pid_ = fork();
        if (pid_ != 0) return pid_ > 0;
        setsid();
        dup2(child_in.get(), STDIN_FILENO);
        dup2(child_out.get(), STDOUT_FILENO);
        dup2(child_err.get(), STDERR_FILENO);
        Exec(text);
    }

    bool ForkOnTerminal(const std::string& text) {
        int master;
        pid_ = forkpty(&master, nullptr, nullptr, nullptr);
        if (pid_ < 0) return false;
        if (pid_ == 0) Exec(text);
        terminal_ = true;
        output_ = Fd(master);
        fcntl(master, F_SETFD, FD_CLOEXEC);
        fcntl(master, F_SETFL, O_NONBLOCK);
        return true;
    }

    // True if something was there. The end of the stream closes `fd`; a pseudo terminal ends with
    // EIO.
    bool Forward(Fd* fd, FrameType type) {
        char buffer[kChunk];
        const ssize_t size = TEMP_FAILURE_RETRY(read(fd->get(), buffer, sizeof(buffer)));
        if (size > 0) {
            port_.Send(task_, type, buffer, size);
            return true;
        }
        if (size == 0 || errno != EAGAIN) fd->reset();
        return false;
    }

    void WritePending(int fd) {
        const ssize_t size = TEMP_FAILURE_RETRY(write(fd, pending_.data(), pending_.size()));
        if (size >= 0) {
            pending_.erase(0, size);
        } else if (errno != EAGAIN) {
            pending_.clear();
        }
        if (pending_.empty() && input_ended_) input_.reset();
    }

    const Port& port_;
    const uint32_t task_;
    pid_t pid_ = -1;
    bool terminal_ = false;
    bool input_ended_ = false;
    std::string pending_;
    Fd input_, output_, errors_;
};

class FollowedFile : public Task {
  public:
    static std::unique_ptr<FollowedFile> Start(const Port& port, uint32_t task,
                                               const std::string& path) {
        auto file = std::unique_ptr<FollowedFile>(new FollowedFile(port, task));
        file->file_ = Fd(open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
        file->changes_ = Fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        // The watch stands before the first read: nothing written meanwhile is missed.
        if (!file->file_.ok() || !file->changes_.ok() ||
            inotify_add_watch(file->changes_.get(), path.c_str(), IN_MODIFY) < 0) {
            port.SendFailure(task, path.c_str());
            return nullptr;
        }
        file->ForwardNews();
        return file;
    }

    void Poll(std::vector<pollfd>* fds) const override {
        fds->push_back({changes_.get(), POLLIN, 0});
    }

    bool Ready(const pollfd&) override {
        char events[4096];
        while (read(changes_.get(), events, sizeof(events)) > 0) {
        }
        ForwardNews();
        return true;
    }

    void Flush() override { ForwardNews(); }

  private:
    FollowedFile(const Port& port, uint32_t task) : port_(port), task_(task) {}

    void ForwardNews() {
        struct stat now;
        if (fstat(file_.get(), &now) == 0 && now.st_size < sent_) {
            lseek(file_.get(), 0, SEEK_SET);
            sent_ = 0;
        }
        char buffer[kChunk];
        ssize_t size;
        while ((size = TEMP_FAILURE_RETRY(read(file_.get(), buffer, sizeof(buffer)))) > 0) {
            port_.Send(task_, kOutput, buffer, size);
            sent_ += size;
        }
    }

    const Port& port_;
    const uint32_t task_;
    off_t sent_ = 0;
    Fd file_, changes_;
};

// A thread of its own receives the events and passes them on with the time of receipt. The loop may
// be writing to the port meanwhile, which takes longer than the kernel takes from one event to the
// next.
class Uevents : public Task {
  public:
    static std::unique_ptr<Uevents> Start(const Port& port, uint32_t task) {
        auto uevents = std::unique_ptr<Uevents>(new Uevents(port, task));
        uevents->socket_ = Fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                     NETLINK_KOBJECT_UEVENT));
        const int socket_fd = uevents->socket_.get();
        setsockopt(socket_fd, SOL_SOCKET, SO_RCVBUFFORCE, &kUeventBuffer, sizeof(kUeventBuffer));
        sockaddr_nl address = {};
        address.nl_family = AF_NETLINK;
        address.nl_groups = 1;
        int pair[2];
        if (bind(socket_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
            port.SendFailure(task, "uevents");
            return nullptr;
        }
        uevents->stamped_ = Fd(pair[0]);
        uevents->receiver_ = Fd(pair[1]);
        uevents->thread_ = std::thread(&Uevents::Receive, uevents.get());
        // Before the programs that the events set to work.
        const sched_param priority = {1};
        pthread_setschedparam(uevents->thread_.native_handle(), SCHED_FIFO, &priority);
        // Tells the harness that from here on no event is missed.
        port.Send(task, kOutput, std::string("listening@"));
        return uevents;
    }

    ~Uevents() override {
        stamped_.reset();
        if (thread_.joinable()) thread_.join();
    }

    void Poll(std::vector<pollfd>* fds) const override {
        fds->push_back({stamped_.get(), POLLIN, 0});
    }

    bool Ready(const pollfd&) override {
        char buffer[16 * 1024 + 64];
        const ssize_t size = recv(stamped_.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        if (size > 0) {
            port_.Send(task_, kOutput, buffer, size);
        } else if (size == 0) {
            port_.SendFailure(task_, "uevents");
            return false;
        }
        return true;
    }

  private:
    Uevents(const Port& port, uint32_t task) : port_(port), task_(task) {}

    static std::string Now() {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        char text[48];
        snprintf(text, sizeof(text), "MONOTONIC=%lld.%06ld", static_cast<long long>(now.tv_sec),
                 now.tv_nsec / 1000);
        return std::string(text, strlen(text) + 1);
    }

    // Until the other end of the pair is closed.
    void Receive() {
        char buffer[16 * 1024];
        while (true) {
            pollfd fds[] = {{socket_.get(), POLLIN, 0}, {receiver_.get(), 0, 0}};
            if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
            if (fds[1].revents != 0) return;
            const ssize_t size = recv(socket_.get(), buffer, sizeof(buffer), 0);
            std::string event;
            if (size > 0) {
                event = std::string(buffer, size) + Now();
            } else if (size < 0 && errno == ENOBUFS) {
                event = "overflow@";
            } else if (size < 0 && errno != EAGAIN && errno != EINTR) {
                break;
            } else {
                continue;
            }
            if (send(receiver_.get(), event.data(), event.size(), MSG_NOSIGNAL) < 0) return;
        }
        shutdown(receiver_.get(), SHUT_WR);
    }

    const Port& port_;
    const uint32_t task_;
    Fd socket_, stamped_, receiver_;
    std::thread thread_;
};

class Channel {
  public:
    explicit Channel(Fd port) : port_(std::move(port)), children_(MakeChildSignal()) {}

    [[noreturn]] void Serve() {
        while (true) {
            std::vector<pollfd> fds = {{port_.fd(), POLLIN, 0}, {children_.get(), POLLIN, 0}};
            std::vector<uint32_t> owners(fds.size(), 0);
            for (const auto& [number, task] : tasks_) {
                task->Poll(&fds);
                owners.resize(fds.size(), number);
            }
            if (TEMP_FAILURE_RETRY(poll(fds.data(), fds.size(), -1)) < 0) Die("poll");
            for (size_t i = 2; i < fds.size(); ++i) {
                const auto task = tasks_.find(owners[i]);
                if (fds[i].revents == 0 || task == tasks_.end()) continue;
                if (!task->second->Ready(fds[i])) tasks_.erase(task);
            }
            if (fds[1].revents) ReapChildren();
            if (fds[0].revents) ReadPort();
        }
    }

  private:
    static Fd MakeChildSignal() {
        sigset_t children;
        sigemptyset(&children);
        sigaddset(&children, SIGCHLD);
        sigprocmask(SIG_BLOCK, &children, nullptr);
        return Fd(signalfd(-1, &children, SFD_CLOEXEC | SFD_NONBLOCK));
    }

    void ReapChildren() {
        signalfd_siginfo info;
        while (read(children_.get(), &info, sizeof(info)) > 0) {
        }
        std::vector<std::pair<pid_t, int>> ended;
        int status;
        pid_t pid;
        while ((pid = waitpid(-1, &status, WNOHANG)) > 0) ended.emplace_back(pid, status);
        for (const auto& [number, task] : tasks_) task->Flush();
        for (const auto& [ended_pid, its_status] : ended) EndTaskOf(ended_pid, its_status);
    }

    void EndTaskOf(pid_t pid, int status) {
        for (auto task = tasks_.begin(); task != tasks_.end(); ++task) {
            if (task->second->Reaped(pid, status)) {
                tasks_.erase(task);
                return;
            }
        }
    }

    void ReadPort() {
        char buffer[kChunk];
        const ssize_t size = TEMP_FAILURE_RETRY(read(port_.fd(), buffer, sizeof(buffer)));
        if (size < 0 && errno == EAGAIN) return;
        if (size <= 0) Die("the harness is gone");
        received_.append(buffer, size);
        size_t used = 0;
        while (received_.size() - used >= kHeaderSize) {
            uint32_t header[3];
            memcpy(header, received_.data() + used, kHeaderSize);
            const auto [length, task, type] = header;
            if (length > kLargestPayload) {
                errno = EMSGSIZE;
                Die("frame");
            }
            if (received_.size() - used - kHeaderSize < length) break;
            Handle(task, type, received_.substr(used + kHeaderSize, length));
            used += kHeaderSize + length;
        }
        received_.erase(0, used);
    }

    void Handle(uint32_t number, uint32_t type, const std::string& payload) {
        switch (type) {
            case kRun:
                Add(number, Command::Start(port_, number, payload.substr(1), payload[0] == 1));
                return;
            case kFollow:
                Add(number, FollowedFile::Start(port_, number, payload));
                return;
            case kUevents:
                Add(number, Uevents::Start(port_, number));
                return;
            case kPing:
                port_.Send(number, kPong, payload);
                return;
            default:
                break;
        }
        // A task may have ended while a frame for it was on its way.
        const auto task = tasks_.find(number);
        if (task == tasks_.end()) return;
        switch (type) {
            case kInput:
                task->second->Input(payload);
                return;
            case kInputEnd:
                task->second->InputEnd();
                return;
            case kSignal: {
                uint32_t signal_number = 0;
                memcpy(&signal_number, payload.data(),
                       std::min(payload.size(), sizeof(signal_number)));
                task->second->Signal(static_cast<int>(signal_number));
                return;
            }
            case kResize: {
                uint16_t size[2] = {};
                memcpy(size, payload.data(), std::min(payload.size(), sizeof(size)));
                task->second->Resize(size[0], size[1]);
                return;
            }
            case kStop:
                port_.SendExit(number, 0);
                tasks_.erase(task);
                return;
            default:
                port_.Send(number, kFailed, std::string("unknown frame type"));
                tasks_.erase(task);
        }
    }

    void Add(uint32_t number, std::unique_ptr<Task> task) {
        if (task != nullptr) tasks_[number] = std::move(task);
    }

    Port port_;
    Fd children_;
    std::map<uint32_t, std::unique_ptr<Task>> tasks_;
    std::string received_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: vm-channel PORT" << std::endl;
        return 2;
    }
    Handle(SIGPIPE, SIG_IGN);
    Fd port(open(argv[1], O_RDWR | O_CLOEXEC));
    if (!port.ok()) Die(argv[1]);
    Channel(std::move(port)).Serve();
}
