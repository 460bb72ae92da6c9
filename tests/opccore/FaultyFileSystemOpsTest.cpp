#include "CoreTest.h"

#include "support/FaultyFileSystemOps.h"

namespace opc::test {
namespace {

struct Faulty : ::testing::Test {
    TempDir dir;
    FaultyFileSystemOps ops;

    std::vector<bool> failed() const {
        std::vector<bool> out;
        for (const Call& call : ops.calls()) out.push_back(call.failed);
        return out;
    }
};

TEST_F(Faulty, FailCallFailsOnlyTheNthCallOfThatHookAndTheFailedCallDoesNothing) {
    ops.failCall(Hook::CreateFolders, 2, ENOSPC);
    ops.createFolders(dir.u16("one"));
    EXPECT_TRUE(ops.exists(dir.u16("one")));
    EXPECT_OPC_EXCEPTION(ops.createFolders(dir.u16("two")), "injected createFolders failure", systemCode(ENOSPC));
    ops.createFolders(dir.u16("three"));
    EXPECT_EQ(listFolder(dir.path()), (Strings{"one", "three"}));
    EXPECT_EQ(failed(), (std::vector<bool>{false, false, true, false}));
    EXPECT_EQ(ops.failures(), 1u);
}

TEST_F(Faulty, FailGlobalCallCountsAcrossHooks) {
    ops.failGlobalCall(3, EXDEV);
    ops.exists(dir.u16());
    ops.isFolder(dir.u16());
    EXPECT_OPC_EXCEPTION(ops.getParentPath(dir.u16()), "injected getParentPath failure", systemCode(EXDEV));
    EXPECT_EQ(ops.getParentPath(u"/a/b"), u"/a");
    EXPECT_EQ(failed(), (std::vector<bool>{false, false, true, false}));
}

TEST_F(Faulty, FailFromFailsEveryLaterCallAndReportingHooksSetTheCodeWithoutThrowing) {
    writeFile(dir.path() / "file", "content");
    const TreeSnapshot before = snapshotTree(dir.path());
    ops.failFrom(2, EACCES);
    EXPECT_TRUE(ops.exists(dir.u16("file")));
    EXPECT_OPC_EXCEPTION(ops.rename(dir.u16("file"), dir.u16("renamed")), "injected rename failure",
                         systemCode(EACCES));
    std::vector<boost::system::error_code> codes(4);
    EXPECT_EQ(ops.createInputStream(dir.u16("file"), kIn, codes[0]), nullptr);
    EXPECT_EQ(ops.createOutputStream(dir.u16("file"), kOut, codes[1]), nullptr);
    ops.createFolders(dir.u16("folder"), codes[2]);
    ops.removeAll(dir.u16("file"), codes[3]);
    EXPECT_EQ(codes, std::vector<boost::system::error_code>(4, systemCode(EACCES)));
    EXPECT_EQ(ops.failures(), 5u);
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(Faulty, RecordsHooksAndPathsInOrder) {
    writeFile(dir.path() / "a", "a");
    ops.copy(dir.u16("a"), dir.u16("b"), ExistsMode::Fail);
    ops.appendPath(u"/x", u"y");
    boost::system::error_code code;
    ops.removeAll(dir.u16("b"), code);
    std::vector<std::tuple<Hook, std::u16string, std::u16string>> calls;
    for (const Call& call : ops.calls()) calls.emplace_back(call.hook, call.path, call.second);
    EXPECT_EQ(calls, (std::vector<std::tuple<Hook, std::u16string, std::u16string>>{
                         {Hook::Copy, dir.u16("a"), dir.u16("b")},
                         {Hook::AppendPath, u"/x", u"y"},
                         {Hook::RemoveAllReporting, dir.u16("b"), u""}}));
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"a", "a"}}));
}

}  // namespace
}  // namespace opc::test
