// The package lock on its own; many processes taking turns through it, by
// the library and by opcdir, are in tests/opcdir/OpcdirLockTest.cpp.

#include "support/ChildProcess.h"
#include "support/FaultyFileSystemOps.h"
#include "support/OpcAssertions.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPhysicalPackage.h>
#include <opcfspackage/PackageLock.h>

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
using opc::LockMode;
using opc::fspackage::PackageLock;

const std::string kTimedOut = "Timed out waiting for the package lock";

struct Lock : ::testing::Test {
    // Whether a lock in mode is free now, asked without waiting.
    bool grantedAtOnce(LockMode mode) const {
        try {
            PackageLock probe(pkg, mode, std::chrono::nanoseconds::zero());
            return true;
        } catch (const opc::Exception& e) {
            EXPECT_EQ(e.what(), kTimedOut);
            return false;
        }
    }
    TempDir dir;
    std::u16string pkg = dir.u16("pkg");
};

TEST_F(Lock, LongPackageNamesGetLockNamesWithinNameMaxThatStillTellThemApart) {
    const std::string wide = "\xe6\x96\x87";  // three bytes, one code unit
    std::string wideName;
    for (int i = 0; i < 81; ++i) wideName += wide;
    const auto n = [](int count, char c) { return std::string(static_cast<std::size_t>(count), c); };
    // The package's name and the lock name's start after ".opc-lock-"; a
    // fingerprint of 16 digits follows when it ends in "-".
    const std::vector<std::pair<std::u16string, std::string>> cases = {
        {fromUtf8(n(81, 'a')), n(81, 'a')},
        {fromUtf8(wideName), wideName},
        {fromUtf8(n(254, 'n') + "1"), n(64, 'n') + "-"},  // the longest name a folder may have
        {fromUtf8(n(254, 'n') + "2"), n(64, 'n') + "-"},
        {fromUtf8(n(63, 'e')) + u"\U0001F600" + fromUtf8(n(60, 'e')), n(63, 'e') + "-"},  // a pair cut in two
        {fromUtf8(n(81, 'x') + wide), n(64, 'x') + "-"},
    };
    std::vector<std::string> names;
    for (const auto& [packageName, start] : cases) {
        SCOPED_TRACE(toUtf8(packageName));
        fs::create_directories(dir.path() / toUtf8(packageName));
        PackageLock lock(dir.u16() + u"/" + packageName, LockMode::Exclusive);
        const std::string name = toUtf8(lock.getLockPath().substr(dir.u16().size() + 1));
        EXPECT_EQ(lock.getLockPath(), dir.u16(name));
        EXPECT_EQ(name.substr(0, 10 + start.size()), ".opc-lock-" + start);
        EXPECT_EQ(fromUtf8(name).size(), fromUtf8(start).size() + 10 + (start.back() == '-' ? 16 : 0));
        EXPECT_LE(name.size(), 255u);
        EXPECT_TRUE(fs::is_regular_file(dir.path() / name));
        names.push_back(name);
    }
    EXPECT_NE(names[2], names[3]);
}

// Which mode excludes which shows in the tool's tests, every command under
// each mode.
TEST_F(Lock, ATimeOutWaitsItsTimeThenFailsWithItsMessageAndChangesNothing) {
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    PackageLock holding(pkg, LockMode::Shared);
    const TreeSnapshot before = snapshotTree(dir.path());
    const auto start = std::chrono::steady_clock::now();
    const auto timedOut = boost::system::errc::make_error_code(boost::system::errc::timed_out);
    EXPECT_OPC_EXCEPTION(PackageLock(pkg, LockMode::Exclusive, std::chrono::milliseconds(150)), kTimedOut, timedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_OPC_EXCEPTION(PackageLock(pkg, LockMode::Exclusive, std::chrono::nanoseconds(-5)), kTimedOut, timedOut);
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

// A holder may remove the lock file before it lets go: the waiter then holds
// the file now at the path, so that a later taker still waits its turn.
TEST_F(Lock, AWaiterWhoseLockFileWasRemovedHoldsTheFileNowAtThePath) {
    auto holder = std::make_unique<PackageLock>(pkg, LockMode::Exclusive);
    std::unique_ptr<PackageLock> waiter;
    std::thread waiting(
        [&] { waiter = std::make_unique<PackageLock>(pkg, LockMode::Exclusive, std::chrono::seconds(5)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    fs::remove(dir.path() / ".opc-lock-pkg");
    holder.reset();
    waiting.join();
    ASSERT_NE(waiter, nullptr);
    EXPECT_TRUE(fs::exists(dir.path() / ".opc-lock-pkg"));
    EXPECT_FALSE(grantedAtOnce(LockMode::Shared));
    waiter.reset();
    EXPECT_TRUE(grantedAtOnce(LockMode::Shared));
}

TEST_F(Lock, AHolderKilledWithSigkillFreesTheLockAtOnce) {
    for (const LockMode mode : {LockMode::Shared, LockMode::Exclusive}) {
        int ready[2];
        ASSERT_EQ(::pipe(ready), 0);
        const pid_t holder = forkChild([&] {
            PackageLock held(pkg, mode);
            if (::write(ready[1], "x", 1) != 1) return 1;
            for (;;) ::pause();
        });
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        EXPECT_FALSE(grantedAtOnce(LockMode::Exclusive));
        ASSERT_EQ(::kill(holder, SIGKILL), 0);
        EXPECT_EQ(waitChild(holder), -1);
        EXPECT_TRUE(grantedAtOnce(LockMode::Exclusive));
        ::close(ready[0]);
        ::close(ready[1]);
    }
}

TEST_F(Lock, AFailingServiceCallGivesItsMessageAndLeavesNothing) {
    for (const Hook hook : {Hook::NormalizePath, Hook::GetParentPath, Hook::AppendPath, Hook::LockFile}) {
        SCOPED_TRACE(hookName(hook));
        FaultyFileSystemOps ops;
        ops.failCall(hook, 1, ENOLCK);
        EXPECT_OPC_EXCEPTION(PackageLock(pkg, LockMode::Exclusive, ops),
                             "Could not lock the package: " + systemCode(ENOLCK).message(), systemCode(ENOLCK));
        EXPECT_EQ(listFolder(dir.path()), std::vector<std::string>{});
        EXPECT_TRUE(grantedAtOnce(LockMode::Exclusive));
        fs::remove(dir.path() / ".opc-lock-pkg");
    }
    // The lock file's folder is not made.
    EXPECT_OPC_EXCEPTION(PackageLock(dir.u16("missing/pkg"), LockMode::Shared),
                         "Could not lock the package: " + systemCode(ENOENT).message(), systemCode(ENOENT));
    EXPECT_EQ(listFolder(dir.path()), std::vector<std::string>{});
}

// Beside the package under one name for every spelling, before the package
// exists and across commits that replace its folder.
TEST_F(Lock, LockFileLiesBesideThePackageUnderOneNameAndOutlivesCommitsThatReplaceItsFolder) {
    PackageLock held(pkg, LockMode::Shared);
    EXPECT_EQ(held.getLockPath(), dir.u16(".opc-lock-pkg"));
    for (const std::u16string& spelling : {dir.u16("x/../pkg/"), dir.u16() + u"//./pkg"})
        EXPECT_EQ(PackageLock(spelling, LockMode::Shared).getLockPath(), held.getLockPath());
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{".opc-lock-pkg", ""}}));
    for (int round = 0; round < 2; ++round) {
        opc::fspackage::FileSystemPhysicalPackage package(pkg);
        package.open(opc::interfaces::Create);
        package.close(false);
    }
    EXPECT_FALSE(grantedAtOnce(LockMode::Exclusive));
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{".opc-lock-pkg", "pkg"}));
}

}  // namespace
}  // namespace opc::test
