#include "CoreTest.h"

#include "support/FaultyFileSystemOps.h"

#include <tuple>

namespace opc::test {
namespace {

// The double the fault sweeps rely on: it fails exactly the calls asked for,
// a failed call does nothing, and every call is recorded with its paths.
TEST(FaultyFileSystemOps, FailsTheNumberedCallsOnlyAndRecordsEveryCall) {
    TempDir dir;
    FaultyFileSystemOps ops;
    writeFile(dir.path() / "file", "content");
    ops.failCall(Hook::CreateFolders, 2, ENOSPC);  // per hook
    ops.failGlobalCall(4, EXDEV);                  // across hooks
    ops.failFrom(8, EACCES);
    ops.createFolders(dir.u16("one"));
    EXPECT_OPC_EXCEPTION(ops.createFolders(dir.u16("two")), "injected createFolders failure", systemCode(ENOSPC));
    EXPECT_EQ(ops.appendPath(u"/x", u"y"), u"/x/y");
    EXPECT_OPC_EXCEPTION(ops.getParentPath(dir.u16()), "injected getParentPath failure", systemCode(EXDEV));
    ops.copy(dir.u16("file"), dir.u16("copy"), ExistsMode::Fail);
    EXPECT_TRUE(ops.exists(dir.u16("one")));
    EXPECT_EQ(ops.getParentPath(u"/a/b"), u"/a");
    EXPECT_OPC_EXCEPTION(ops.rename(dir.u16("file"), dir.u16("renamed")), "injected rename failure",
                         systemCode(EACCES));
    std::vector<boost::system::error_code> codes(4);
    EXPECT_EQ(ops.createInputStream(dir.u16("file"), kIn, codes[0]), nullptr);
    EXPECT_EQ(ops.createOutputStream(dir.u16("file"), kOut, codes[1]), nullptr);
    ops.createFolders(dir.u16("folder"), codes[2]);
    ops.removeAll(dir.u16("file"), codes[3]);
    EXPECT_EQ(codes, std::vector<boost::system::error_code>(4, systemCode(EACCES)));
    EXPECT_EQ(ops.failures(), 7u);
    EXPECT_EQ(ops.count(Hook::GetParentPath), 2u);
    std::vector<std::tuple<Hook, std::u16string, std::u16string, bool>> calls;
    for (const Call& call : ops.calls()) calls.emplace_back(call.hook, call.path, call.second, call.failed);
    EXPECT_EQ(calls, (decltype(calls){{Hook::CreateFolders, dir.u16("one"), u"", false},
                                      {Hook::CreateFolders, dir.u16("two"), u"", true},
                                      {Hook::AppendPath, u"/x", u"y", false},
                                      {Hook::GetParentPath, dir.u16(), u"", true},
                                      {Hook::Copy, dir.u16("file"), dir.u16("copy"), false},
                                      {Hook::Exists, dir.u16("one"), u"", false},
                                      {Hook::GetParentPath, u"/a/b", u"", false},
                                      {Hook::Rename, dir.u16("file"), dir.u16("renamed"), true},
                                      {Hook::CreateInputStream, dir.u16("file"), u"", true},
                                      {Hook::CreateOutputStream, dir.u16("file"), u"", true},
                                      {Hook::CreateFoldersReporting, dir.u16("folder"), u"", true},
                                      {Hook::RemoveAllReporting, dir.u16("file"), u"", true}}));
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"copy", "content"}, {"file", "content"}, {"one/", ""}}));
}

}  // namespace
}  // namespace opc::test
