#pragma once

#include "support/OpcAssertions.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/PackageLock.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <string>

namespace opc::test {

using opc::LockMode;
using opc::fspackage::PackageLock;

const std::string kTimedOut = "Timed out waiting for the package lock";

inline boost::system::error_code timedOutCode() {
    return boost::system::errc::make_error_code(boost::system::errc::timed_out);
}

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

// Whether a lock in mode is free now, asked without waiting.
inline bool grantedAtOnce(const std::u16string& package, LockMode mode) {
    try {
        PackageLock probe(package, mode, std::chrono::nanoseconds::zero());
        return true;
    } catch (const opc::Exception& e) {
        EXPECT_EQ(e.what(), kTimedOut);
        return false;
    }
}

}  // namespace opc::test
