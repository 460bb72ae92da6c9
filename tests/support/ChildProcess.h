#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <functional>

namespace opc::test {

// Runs body in a forked child whose exit status is body's result; an
// exception is told on stderr and exits 99. The child never returns into the
// test.
inline pid_t forkChild(const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    int status = 99;
    try {
        status = body();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "child %d: %s\n", static_cast<int>(::getpid()), e.what());
    }
    ::_exit(status);
}

// The child's exit status, or -1 when it did not exit normally.
inline int waitChild(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace opc::test
