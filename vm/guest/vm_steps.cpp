// Copyright (C) 2026 The kusd authors
// SPDX-License-Identifier: Apache-2.0

// vm-steps PATTERN PROGRAM [ARGUMENT...]: runs a program and holds it before each step that it
// takes on files whose path matches the pattern (fnmatch). A step is a system call that opens a
// file to change it, changes it, syncs it, or closes a file that was open to be changed.
//
// Before each step it prints "step: CALL PATH" and waits for a line on standard input; when the
// input has ended the program goes on. Its other threads run until a step of their own. At the end
// it prints "exit: STATUS" or "signal: NUMBER".
//
// The program's output is its own. Where both go to one pipe, what it had written before a step is
// there before the step's line. When this program is killed, so is the other.

#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <limits.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

namespace {

// Where a call's file is among its arguments, and when it counts.
enum class Kind { kDescriptor, kWritableDescriptor, kPathAfterDirectory, kPath, kOpen };

struct Call {
    uint32_t number;
    const char* name;
    Kind kind;
};

constexpr Call kCalls[] = {
        {SYS_openat, "open", Kind::kOpen},
        {SYS_close, "close", Kind::kWritableDescriptor},
        {SYS_write, "write", Kind::kDescriptor},
        {SYS_writev, "write", Kind::kDescriptor},
        {SYS_pwrite64, "write", Kind::kDescriptor},
        {SYS_sendfile, "write", Kind::kDescriptor},
        {SYS_ftruncate, "truncate", Kind::kDescriptor},
        {SYS_truncate, "truncate", Kind::kPath},
        {SYS_fsync, "fsync", Kind::kDescriptor},
        {SYS_fdatasync, "fdatasync", Kind::kDescriptor},
        {SYS_renameat, "rename", Kind::kPathAfterDirectory},
        {SYS_renameat2, "rename", Kind::kPathAfterDirectory},
        {SYS_unlinkat, "unlink", Kind::kPathAfterDirectory},
};

[[noreturn]] void Die(const char* what) {
    std::cerr << "vm-steps: " << what << ": " << strerror(errno) << std::endl;
    exit(1);
}

// From now on kCalls, and no others, tell the tracer before they begin.
void ReportCalls() {
    std::vector<sock_filter> program = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const Call& call : kCalls) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call.number, 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<uint16_t>(program.size()), program.data()};
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0) Die("PR_SET_SECCOMP");
}

std::string OwnDirectory(pid_t thread) {
    return "/proc/" + std::to_string(thread);
}

// The zero-terminated text there, or what can be read of it.
std::string ReadText(pid_t thread, uint64_t address) {
    std::string text(PATH_MAX, '\0');
    const iovec to{text.data(), text.size()};
    const iovec from{reinterpret_cast<void*>(address), text.size()};
    ssize_t size = process_vm_readv(thread, &to, 1, &from, 1, 0);
    // The page behind the text's own need not be there.
    const int saved = errno;
    if (size < 0 && saved == EFAULT) {
        const iovec rest{from.iov_base, 4096 - address % 4096};
        size = process_vm_readv(thread, &to, 1, &rest, 1, 0);
    }
    text.resize(size < 0 ? 0 : size);
    return text.substr(0, text.find('\0'));
}

std::string PathOfDescriptor(pid_t thread, int fd) {
    char path[PATH_MAX];
    const std::string link = OwnDirectory(thread) + "/fd/" + std::to_string(fd);
    const ssize_t size = readlink(link.c_str(), path, sizeof(path));
    return std::string(path, size < 0 ? 0 : size);
}

bool IsWritable(pid_t thread, int fd) {
    std::ifstream info(OwnDirectory(thread) + "/fdinfo/" + std::to_string(fd));
    std::string word;
    while (info >> word && word != "flags:") {
    }
    int flags = O_RDONLY;
    info >> std::oct >> flags;
    return (flags & O_ACCMODE) != O_RDONLY;
}

// The path that a call is about, or nothing if it is no step.
std::string PathOf(pid_t thread, const Call& call, const uint64_t* arguments) {
    const int fd = static_cast<int>(arguments[0]);
    switch (call.kind) {
        case Kind::kDescriptor:
            return PathOfDescriptor(thread, fd);
        case Kind::kWritableDescriptor:
            return IsWritable(thread, fd) ? PathOfDescriptor(thread, fd) : "";
        case Kind::kPath:
            return ReadText(thread, arguments[0]);
        case Kind::kPathAfterDirectory:
            return ReadText(thread, arguments[1]);
        case Kind::kOpen:
            if ((arguments[2] & (O_ACCMODE | O_CREAT | O_TRUNC)) == 0) return "";
            return ReadText(thread, arguments[1]);
    }
    return "";
}

class Tracer {
  public:
    explicit Tracer(const char* pattern) : pattern_(pattern) {}

    // Runs the program to its end and prints that.
    void Run(char** program) {
        Start(program);
        for (;;) {
            int status = 0;
            const pid_t thread = TEMP_FAILURE_RETRY(waitpid(-1, &status, __WALL));
            if (thread < 0) Die("waitpid");
            if (!WIFSTOPPED(status)) {
                if (thread == program_) return PrintEnd(status);
                continue;
            }
            const int signal_number = OnStop(thread, status);
            // A thread that another one has ended meanwhile is gone: no failure.
            ptrace(PTRACE_CONT, thread, nullptr, signal_number);
        }
    }

  private:
    void Start(char** program) {
        program_ = fork();
        if (program_ < 0) Die("fork");
        if (program_ == 0) {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
            ReportCalls();
            execvp(program[0], program);
            Die(program[0]);
        }
        if (waitpid(program_, nullptr, 0) != program_) Die("waitpid");
        known_.insert(program_);
        constexpr int kOptions = PTRACE_O_TRACESECCOMP | PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK |
                                 PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
        if (ptrace(PTRACE_SETOPTIONS, program_, nullptr, kOptions) != 0) Die("PTRACE_SETOPTIONS");
        if (ptrace(PTRACE_CONT, program_, nullptr, 0) != 0) Die("PTRACE_CONT");
    }

    // The signal to be delivered.
    int OnStop(pid_t thread, int status) {
        const int signal_number = WSTOPSIG(status);
        const int event = status >> 16;
        if (event == PTRACE_EVENT_SECCOMP) OnCall(thread);
        // Every new thread begins with a stop that nobody has sent.
        const bool is_new = known_.insert(thread).second;
        return event != 0 || (is_new && signal_number == SIGSTOP) ? 0 : signal_number;
    }

    void OnCall(pid_t thread) {
        __ptrace_syscall_info info{};
        if (ptrace(PTRACE_GET_SYSCALL_INFO, thread, sizeof(info), &info) <= 0) return;
        const Call* call = std::find_if(std::begin(kCalls), std::end(kCalls),
                                        [&](const Call& c) { return c.number == info.seccomp.nr; });
        if (call == std::end(kCalls)) return;
        const std::string path = PathOf(thread, *call, info.seccomp.args);
        if (fnmatch(pattern_, path.c_str(), 0) != 0) return;
        std::cout << "step: " << call->name << ' ' << path << std::endl;
        std::string line;
        std::getline(std::cin, line);
    }

    static void PrintEnd(int status) {
        if (WIFEXITED(status)) {
            std::cout << "exit: " << WEXITSTATUS(status) << std::endl;
        } else {
            std::cout << "signal: " << WTERMSIG(status) << std::endl;
        }
    }

    const char* const pattern_;
    pid_t program_ = -1;
    std::set<pid_t> known_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: vm-steps PATTERN PROGRAM [ARGUMENT...]" << std::endl;
        return 2;
    }
    Tracer(argv[1]).Run(argv + 2);
    return 0;
}
