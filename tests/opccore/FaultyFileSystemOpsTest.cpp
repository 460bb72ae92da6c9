#include "support/FaultyFileSystemOps.h"
#include "support/OpcAssertions.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using opc::test::Call;
using opc::test::FaultyFileSystemOps;
using opc::test::Hook;
using opc::test::snapshotTree;
using opc::test::systemCode;
using opc::test::TempDir;
using opc::test::writeFile;

const auto kIn = std::ios_base::in | std::ios_base::binary;
const auto kOut = std::ios_base::out | std::ios_base::binary;

std::vector<Hook> hooksOf(const FaultyFileSystemOps& ops) {
    std::vector<Hook> hooks;
    for (const Call& call : ops.calls()) hooks.push_back(call.hook);
    return hooks;
}

std::vector<bool> failedOf(const FaultyFileSystemOps& ops) {
    std::vector<bool> failed;
    for (const Call& call : ops.calls()) failed.push_back(call.failed);
    return failed;
}

TEST(FaultyFileSystemOps, FailCallFailsExactlyTheNthCallOfThatHook) {
    TempDir dir;
    FaultyFileSystemOps ops;
    ops.failCall(Hook::CreateFolders, 2, ENOSPC);
    ops.createFolders(dir.u16("one"));
    EXPECT_OPC_EXCEPTION(ops.createFolders(dir.u16("two")), "injected createFolders failure", systemCode(ENOSPC));
    ops.createFolders(dir.u16("three"));
    // The failed call did nothing; the others reached the disk.
    EXPECT_EQ(opc::test::listFolder(dir.path()), (std::vector<std::string>{"one", "three"}));
    EXPECT_EQ(ops.count(Hook::CreateFolders), 3u);
    EXPECT_EQ(ops.failures(), 1u);
    EXPECT_EQ(failedOf(ops), (std::vector<bool>{false, true, false}));
}

TEST(FaultyFileSystemOps, PerHookNumberingIgnoresOtherHooks) {
    TempDir dir;
    FaultyFileSystemOps ops;
    ops.failCall(Hook::Exists, 2);
    EXPECT_NO_THROW(ops.isFolder(dir.u16()));
    EXPECT_NO_THROW(ops.exists(dir.u16()));
    EXPECT_NO_THROW(ops.isFolder(dir.u16()));
    EXPECT_OPC_EXCEPTION(ops.exists(dir.u16()), "injected exists failure", systemCode(EIO));
    EXPECT_NO_THROW(ops.exists(dir.u16()));
}

TEST(FaultyFileSystemOps, ThrowingAndReportingFormsAreSeparateHooks) {
    TempDir dir;
    FaultyFileSystemOps ops;
    ops.failCall(Hook::CreateFoldersReporting, 1, EROFS);
    EXPECT_NO_THROW(ops.createFolders(dir.u16("thrown")));
    boost::system::error_code code;
    EXPECT_NO_THROW(ops.createFolders(dir.u16("reported"), code));
    EXPECT_EQ(code, systemCode(EROFS));
    EXPECT_EQ(opc::test::listFolder(dir.path()), (std::vector<std::string>{"thrown"}));
    EXPECT_EQ(hooksOf(ops), (std::vector<Hook>{Hook::CreateFolders, Hook::CreateFoldersReporting}));
}

TEST(FaultyFileSystemOps, GlobalNumberingRunsAcrossHooks) {
    TempDir dir;
    FaultyFileSystemOps ops;
    ops.failGlobalCall(3, EXDEV);
    EXPECT_NO_THROW(ops.exists(dir.u16()));
    EXPECT_NO_THROW(ops.isFolder(dir.u16()));
    EXPECT_OPC_EXCEPTION(ops.getParentPath(dir.u16()), "injected getParentPath failure", systemCode(EXDEV));
    EXPECT_EQ(ops.appendPath(u"/a", u"b"), u"/a/b");
    EXPECT_NO_THROW(ops.getParentPath(dir.u16()));
    EXPECT_EQ(failedOf(ops), (std::vector<bool>{false, false, true, false, false}));
}

TEST(FaultyFileSystemOps, FailFromFailsEveryLaterCall) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    const auto before = snapshotTree(dir.path());
    FaultyFileSystemOps ops;
    ops.failFrom(2, EACCES);
    EXPECT_TRUE(ops.exists(dir.u16("file")));
    EXPECT_OPC_EXCEPTION(ops.isFolder(dir.u16()), "injected isFolder failure", systemCode(EACCES));
    EXPECT_OPC_EXCEPTION(ops.copy(dir.u16("file"), dir.u16("copy"), opc::ExistsMode::Overwrite),
                         "injected copy failure", systemCode(EACCES));
    EXPECT_OPC_EXCEPTION(ops.rename(dir.u16("file"), dir.u16("renamed")), "injected rename failure",
                         systemCode(EACCES));
    EXPECT_OPC_EXCEPTION(ops.removeAll(dir.u16("file")), "injected removeAll failure", systemCode(EACCES));
    boost::system::error_code code;
    ops.removeAll(dir.u16("file"), code);
    EXPECT_EQ(code, systemCode(EACCES));
    EXPECT_EQ(ops.failures(), 5u);
    EXPECT_EQ(snapshotTree(dir.path()), before);

    ops.clearFailures();
    EXPECT_NO_THROW(ops.isFolder(dir.u16()));
    EXPECT_EQ(ops.failures(), 5u);
}

TEST(FaultyFileSystemOps, ReportingHooksSetTheCodeWithoutThrowingOrActing) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    const auto before = snapshotTree(dir.path());
    FaultyFileSystemOps ops;
    ops.failFrom(1, ENOSPC);

    boost::system::error_code code;
    std::shared_ptr<std::istream> in;
    EXPECT_NO_THROW(in = ops.createInputStream(dir.u16("file"), kIn, code));
    EXPECT_EQ(in, nullptr);
    EXPECT_EQ(code, systemCode(ENOSPC));

    code.clear();
    std::shared_ptr<std::ostream> out;
    EXPECT_NO_THROW(out = ops.createOutputStream(dir.u16("file"), kOut, code));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(code, systemCode(ENOSPC));

    code.clear();
    EXPECT_NO_THROW(ops.createOutputStream(dir.u16("new"), kOut, code));
    EXPECT_EQ(code, systemCode(ENOSPC));

    code.clear();
    ops.createFolders(dir.u16("folder"), code);
    EXPECT_EQ(code, systemCode(ENOSPC));

    code.clear();
    ops.removeAll(dir.u16("file"), code);
    EXPECT_EQ(code, systemCode(ENOSPC));

    // Nothing was emptied, created or removed.
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(FaultyFileSystemOps, WithoutRulesBehavesLikeTheLocalService) {
    TempDir dir;
    FaultyFileSystemOps ops;
    ops.createFolders(dir.u16("pkg/word"));
    boost::system::error_code code;
    auto out = ops.createOutputStream(dir.u16("pkg/word/x.xml"), kOut, code);
    ASSERT_NE(out, nullptr);
    *out << "x";
    out.reset();
    ops.copy(dir.u16("pkg/word/x.xml"), dir.u16("pkg/y.xml"), opc::ExistsMode::Fail);
    std::vector<std::u16string> files;
    ops.getFiles(dir.u16("pkg"), files, true);
    EXPECT_EQ(files.size(), 2u);
    ops.rename(dir.u16("pkg"), dir.u16("moved"));
    EXPECT_EQ(snapshotTree(dir.path()), (opc::test::TreeSnapshot{{"moved/", ""},
                                                                  {"moved/word/", ""},
                                                                  {"moved/word/x.xml", "x"},
                                                                  {"moved/y.xml", "x"}}));
    ops.removeAll(dir.u16("moved"));
    EXPECT_TRUE(opc::test::listFolder(dir.path()).empty());
    EXPECT_EQ(ops.failures(), 0u);
}

TEST(FaultyFileSystemOps, RecordsHooksAndPathsInOrder) {
    TempDir dir;
    writeFile(dir.path() / "a", "a");
    FaultyFileSystemOps ops;
    ops.exists(dir.u16("a"));
    ops.copy(dir.u16("a"), dir.u16("b"), opc::ExistsMode::Fail);
    ops.rename(dir.u16("b"), dir.u16("c"));
    ops.appendPath(u"/x", u"y/z");
    boost::system::error_code code;
    ops.removeAll(dir.u16("c"), code);

    const auto& calls = ops.calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0].hook, Hook::Exists);
    EXPECT_EQ(calls[0].path, dir.u16("a"));
    EXPECT_EQ(calls[0].second, u"");
    EXPECT_EQ(calls[1].hook, Hook::Copy);
    EXPECT_EQ(calls[1].path, dir.u16("a"));
    EXPECT_EQ(calls[1].second, dir.u16("b"));
    EXPECT_EQ(calls[2].hook, Hook::Rename);
    EXPECT_EQ(calls[2].path, dir.u16("b"));
    EXPECT_EQ(calls[2].second, dir.u16("c"));
    EXPECT_EQ(calls[3].hook, Hook::AppendPath);
    EXPECT_EQ(calls[3].path, u"/x");
    EXPECT_EQ(calls[3].second, u"y/z");
    EXPECT_EQ(calls[4].hook, Hook::RemoveAllReporting);
    EXPECT_EQ(calls[4].path, dir.u16("c"));
    EXPECT_EQ(ops.count(Hook::Copy), 1u);
    EXPECT_EQ(ops.count(Hook::RemoveAll), 0u);
}

TEST(FaultyFileSystemOps, ClearCallsRestartsTheNumbering) {
    TempDir dir;
    FaultyFileSystemOps ops;
    ops.exists(dir.u16());
    ops.exists(dir.u16());
    ops.clearCalls();
    EXPECT_TRUE(ops.calls().empty());
    ops.failCall(Hook::Exists, 1);
    ops.failGlobalCall(2, ENOENT);
    EXPECT_OPC_EXCEPTION(ops.exists(dir.u16()), "injected exists failure", systemCode(EIO));
    EXPECT_OPC_EXCEPTION(ops.isFolder(dir.u16()), "injected isFolder failure", systemCode(ENOENT));
}

TEST(FaultyFileSystemOps, InternalPathJoinsAreNotCountedAsCalls) {
    // normalizePath and getTempName join paths themselves; were that routed
    // through the public hook, every fault number in a package test would shift.
    TempDir dir;
    FaultyFileSystemOps ops;
    ops.failCall(Hook::AppendPath, 1);
    EXPECT_EQ(ops.normalizePath(u"relative/x").back(), u'x');
    const std::u16string temp = ops.getTempName(dir.u16());
    EXPECT_EQ(ops.getParentPath(temp), dir.u16());
    EXPECT_EQ(hooksOf(ops), (std::vector<Hook>{Hook::NormalizePath, Hook::GetTempName, Hook::GetParentPath}));
}

TEST(FaultyFileSystemOps, BeforeCallSeesTheCallBeforeItActs) {
    TempDir dir;
    fs::create_directories(dir.path() / "from");
    FaultyFileSystemOps ops;
    std::vector<bool> sourceThere;
    ops.setBeforeCall([&](const Call& call) {
        if (call.hook == Hook::Rename) sourceThere.push_back(fs::exists(dir.path() / "from"));
    });
    ops.rename(dir.u16("from"), dir.u16("to"));
    EXPECT_EQ(sourceThere, std::vector<bool>{true});
    EXPECT_TRUE(fs::exists(dir.path() / "to"));
}

TEST(FaultyFileSystemOps, RangeOfCallsFailsAndNoMore) {
    TempDir dir;
    FaultyFileSystemOps ops;
    ops.failCalls(Hook::IsFolder, 2, 3, ENOMEM);
    std::vector<bool> threw;
    for (int i = 0; i < 5; ++i) {
        try {
            ops.isFolder(dir.u16());
            threw.push_back(false);
        } catch (const opc::Exception& e) {
            EXPECT_EQ(e.code(), systemCode(ENOMEM));
            threw.push_back(true);
        }
    }
    EXPECT_EQ(threw, (std::vector<bool>{false, true, true, false, false}));
    EXPECT_EQ(FaultyFileSystemOps::injectedCode(ENOMEM), systemCode(ENOMEM));
    EXPECT_EQ(FaultyFileSystemOps::injectedCode(), systemCode(EIO));
}

}  // namespace
