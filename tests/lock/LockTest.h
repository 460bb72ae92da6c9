#pragma once

#include "support/ChildProcess.h"
#include "support/OpcAssertions.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/PackageLock.h>

#include <gtest/gtest.h>

#include <string>

namespace opc::test {

using opc::LockMode;
using opc::fspackage::PackageLock;

const std::string kTimedOut = "Timed out waiting for the package lock";

inline boost::system::error_code timedOutCode() {
    return boost::system::errc::make_error_code(boost::system::errc::timed_out);
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
