#include "LockTest.h"

#include "support/FaultyFileSystemOps.h"

#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <signal.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

struct Lock : ::testing::Test {
    TempDir dir;
    std::u16string pkg = dir.u16("pkg");
};

TEST_F(Lock, LockFileLiesBesideThePackageUnderOneNameForEverySpellingAndBeforeThePackageExists) {
    PackageLock first(pkg, LockMode::Shared);
    EXPECT_EQ(first.getLockPath(), dir.u16(".opc-lock-pkg"));
    EXPECT_EQ(first.getMode(), LockMode::Shared);
    for (const std::u16string& spelling : {dir.u16("x/../pkg/"), dir.u16() + u"//./pkg"}) {
        PackageLock same(spelling, LockMode::Shared);
        EXPECT_EQ(same.getLockPath(), first.getLockPath());
    }
    // Nothing but the empty lock file: the package is not made.
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{".opc-lock-pkg", ""}}));
}

TEST_F(Lock, LongPackageNamesGetLockNamesWithinNameMaxThatStillTellThemApart) {
    const std::string longest(254, 'n');      // with one more byte, the longest name a folder may have
    const std::string wide = "\xe6\x96\x87";  // three bytes, one code unit
    std::string wideName;
    for (int i = 0; i < 81; ++i) wideName += wide;
    const std::u16string prefix = u".opc-lock-";
    struct Case {
        std::u16string packageName;
        std::u16string lockStart;  // the lock name's start; a fingerprint of 16 digits follows when it ends in "-"
    };
    const std::vector<Case> cases = {
        {fromUtf8(std::string(81, 'a')), prefix + fromUtf8(std::string(81, 'a'))},
        {fromUtf8(wideName), prefix + fromUtf8(wideName)},
        {fromUtf8(longest + "1"), prefix + fromUtf8(std::string(64, 'n')) + u"-"},
        {fromUtf8(longest + "2"), prefix + fromUtf8(std::string(64, 'n')) + u"-"},
        {fromUtf8(std::string(63, 'e')) + u"\U0001F600" + fromUtf8(std::string(60, 'e')),
         prefix + fromUtf8(std::string(63, 'e')) + u"-"},  // a surrogate pair where the name is cut
        {fromUtf8(std::string(81, 'x') + wide), prefix + fromUtf8(std::string(64, 'x')) + u"-"},
    };
    std::vector<std::string> names;
    for (const Case& c : cases) {
        SCOPED_TRACE(toUtf8(c.packageName));
        const std::u16string package = dir.u16() + u"/" + c.packageName;
        fs::create_directories(toUtf8(package));
        PackageLock lock(package, LockMode::Exclusive);
        const std::u16string name = lock.getLockPath().substr(dir.u16().size() + 1);
        EXPECT_EQ(lock.getLockPath(), dir.u16() + u"/" + name);
        EXPECT_EQ(name.substr(0, c.lockStart.size()), c.lockStart);
        EXPECT_EQ(name.size(), c.lockStart.size() + (c.lockStart.back() == u'-' ? 16 : 0));
        EXPECT_LE(toUtf8(name).size(), 255u);
        EXPECT_TRUE(fs::is_regular_file(dir.path() / toUtf8(name)));
        names.push_back(toUtf8(name));
    }
    EXPECT_NE(names[2], names[3]);
}

TEST_F(Lock, SharedLocksCoexistAndAnExclusiveOneExcludesEveryOther) {
    struct Case {
        LockMode held;
        LockMode asked;
        bool granted;
    };
    for (const Case& c :
         {Case{LockMode::Shared, LockMode::Shared, true}, Case{LockMode::Shared, LockMode::Exclusive, false},
          Case{LockMode::Exclusive, LockMode::Shared, false}, Case{LockMode::Exclusive, LockMode::Exclusive, false}}) {
        SCOPED_TRACE(static_cast<int>(c.held) * 10 + static_cast<int>(c.asked));
        {
            PackageLock held(pkg, c.held);
            EXPECT_EQ(grantedAtOnce(pkg, c.asked), c.granted);
        }
        EXPECT_TRUE(grantedAtOnce(pkg, c.asked));  // released with its object
    }
}

TEST_F(Lock, TimeOutWaitsItsTimeThenFailsWithItsMessageAndChangesNothing) {
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    PackageLock held(pkg, LockMode::Shared);
    const TreeSnapshot before = snapshotTree(dir.path());
    const auto start = Clock::now();
    EXPECT_OPC_EXCEPTION(PackageLock(pkg, LockMode::Exclusive, std::chrono::milliseconds(150)), kTimedOut,
                         timedOutCode());
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_OPC_EXCEPTION(PackageLock(pkg, LockMode::Exclusive, std::chrono::nanoseconds(-5)), kTimedOut,
                         timedOutCode());
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(Lock, AWaiterBlocksUntilTheHolderInAnotherProcessReleases) {
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = forkChild([&] {
        PackageLock held(pkg, LockMode::Exclusive);
        if (::write(ready[1], "x", 1) != 1) return 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        writeFile(dir.path() / "released", "");  // before the lock goes
        return 0;
    });
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    {
        PackageLock waiter(pkg, LockMode::Shared);
        EXPECT_TRUE(fs::exists(dir.path() / "released"));
    }
    EXPECT_EQ(waitChild(holder), 0);
    ::close(ready[0]);
    ::close(ready[1]);
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
        EXPECT_FALSE(grantedAtOnce(pkg, LockMode::Exclusive));
        ASSERT_EQ(::kill(holder, SIGKILL), 0);
        EXPECT_EQ(waitChild(holder), -1);
        EXPECT_TRUE(grantedAtOnce(pkg, LockMode::Exclusive));
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
        EXPECT_TRUE(grantedAtOnce(pkg, LockMode::Exclusive));
        fs::remove(dir.path() / ".opc-lock-pkg");
    }
    // The lock file's folder is not made.
    EXPECT_OPC_EXCEPTION(PackageLock(dir.u16("missing/pkg"), LockMode::Shared),
                         "Could not lock the package: " + systemCode(ENOENT).message(), systemCode(ENOENT));
    EXPECT_EQ(listFolder(dir.path()), std::vector<std::string>{});
}

TEST_F(Lock, TheLockOfAPackageOutlivesCommitsThatReplaceItsFolder) {
    PackageLock held(pkg, LockMode::Exclusive);
    for (int round = 0; round < 2; ++round) {
        opc::fspackage::FileSystemPhysicalPackage package(pkg);
        package.open(opc::interfaces::Create);
        package.close(false);
    }
    EXPECT_FALSE(grantedAtOnce(pkg, LockMode::Shared));
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{".opc-lock-pkg", "pkg"}));
}

}  // namespace
}  // namespace opc::test
