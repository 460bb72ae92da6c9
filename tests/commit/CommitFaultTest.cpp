// Every file-system call a commit makes is failed in turn; whatever fails,
// the package path holds the old package or the whole new one, and the
// caller learns which step failed.

#include "CommitFixture.h"

#include "support/FaultyFileSystemOps.h"
#include "support/OpcAssertions.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace opc::test::commit {
namespace {

using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::OpenMode;

const std::string kIoError = "Input/output error";

std::string baseName(const std::u16string& path) { return std::filesystem::path(toUtf8(path)).filename().native(); }

std::string injected(Hook hook) { return std::string("injected ") + hookName(hook) + " failure"; }

std::vector<Hook> hooksOf(const std::vector<Call>& calls, std::size_t from, std::size_t to) {
    std::vector<Hook> hooks;
    for (std::size_t i = from; i < to && i < calls.size(); ++i) hooks.push_back(calls[i].hook);
    return hooks;
}

// The calls one successful close(false) of the changed sample package makes.
struct Recording {
    std::vector<Call> calls;
    std::u16string packageRoot;
    std::u16string tempRoot;
};

Recording recordCommit() {
    TempDir dir;
    writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    Recording recording{{}, package.getPackageRoot(), package.getTempPackageRoot()};
    ops.clearCalls();
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()), sampleAfterCommit());
    recording.calls = ops.calls();
    return recording;
}

// What failing one call of the recorded commit must lead to.
struct Expectation {
    std::string message;
    boost::system::error_code code;
    // The calls after the failing one: the undo steps, then cleanup's removal
    // of the temporary folder when there still is one.
    std::vector<Hook> tail;
};

Expectation expectationFor(const Recording& recording, std::size_t k) {
    const std::vector<Call>& calls = recording.calls;
    const auto firstOf = [&](Hook hook, const std::u16string& path) {
        return static_cast<std::size_t>(std::find_if(calls.begin(), calls.end(), [&](const Call& call) {
                                            return call.hook == hook && call.path == path;
                                        }) -
                                        calls.begin());
    };
    // The copies start with the first part path in the package folder; the
    // swap with the parent folder of the package path.
    const std::size_t swapStart = firstOf(Hook::GetParentPath, recording.packageRoot);
    const std::size_t copyStart = std::min(firstOf(Hook::AppendPath, recording.packageRoot), swapStart);
    const std::size_t index = k - 1;
    const Call& call = calls.at(index);
    const auto io = systemCode(EIO);
    const std::vector<Hook> cleanupOnly{Hook::RemoveAllReporting};

    if (index < copyStart) {  // finishing the changed parts
        switch (call.hook) {
            case Hook::AppendPath: return {injected(call.hook), io, cleanupOnly};
            case Hook::GetParentPath:
            case Hook::Exists:
            case Hook::CreateFolders:
                return {"Could not create directory structure for part output stream: " + kIoError, io, cleanupOnly};
            case Hook::CreateOutputStream: return {"Failed to create or open file system output stream", emptyCode(), cleanupOnly};
            default: break;
        }
    } else if (index < swapStart) {  // copying the unchanged parts
        switch (call.hook) {
            case Hook::AppendPath: return {injected(call.hook), io, cleanupOnly};
            case Hook::GetParentPath:
            case Hook::Exists:
            case Hook::CreateFolders:
            case Hook::Copy:
                return {"Could not copy original part to destination package: " + kIoError, io, cleanupOnly};
            default: break;
        }
    } else {  // the swap
        const std::string prefix = "Could not commit changes: ";
        switch (call.hook) {
            case Hook::GetParentPath:
            case Hook::GetTempName:
            case Hook::Exists: return {prefix + injected(call.hook) + ": " + kIoError, io, cleanupOnly};
            case Hook::Rename:
                if (call.path == recording.packageRoot) {
                    return {prefix + "Could not move the original package to temporary location: " + kIoError, io,
                            cleanupOnly};
                }
                if (call.path == recording.tempRoot && call.second == recording.packageRoot) {
                    return {prefix + "Could not rename the temporary package to final location: " + kIoError, io,
                            {Hook::Exists, Hook::Rename, Hook::RemoveAllReporting}};
                }
                break;
            case Hook::RemoveAll:
                return {prefix + "Could not remove the original package: " + kIoError, io, {Hook::RemoveAll, Hook::Rename}};
            default: break;
        }
    }
    ADD_FAILURE() << "call " << k << " (" << hookName(call.hook) << ") was not expected in a commit";
    return {};
}

// One round: a fresh sample package, the same changes, call k failing; and,
// when failCleanup, cleanup's removal of the temporary folder failing too.
void runWithFailure(const Recording& recording, std::size_t k, bool failCleanup) {
    const Hook failingHook = recording.calls.at(k - 1).hook;
    SCOPED_TRACE("call " + std::to_string(k) + " of " + std::to_string(recording.calls.size()) + ": " +
                 hookName(failingHook) + (failCleanup ? ", cleanup failing too" : ""));
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    const std::u16string temp = package.getTempPackageRoot();
    ops.clearCalls();
    ops.failGlobalCall(k);
    if (failCleanup) ops.failCall(Hook::RemoveAllReporting, 1);

    const Expectation expected = expectationFor(recording, k);
    EXPECT_OPC_EXCEPTION(package.close(false), expected.message, expected.code);
    EXPECT_FALSE(package.isOpen());
    EXPECT_EQ(package.getTempPackageRoot(), u"");
    EXPECT_EQ(openFilesBelow(dir.path()), 0);

    // Up to the failure the commit repeats the recorded calls; after it come
    // the undo steps and cleanup, each tried once.
    const std::vector<Call>& calls = ops.calls();
    EXPECT_EQ(hooksOf(calls, 0, k), hooksOf(recording.calls, 0, k));
    EXPECT_EQ(hooksOf(calls, k, calls.size()), expected.tail);
    const bool tempLeftForCleanup = !expected.tail.empty() && expected.tail.back() == Hook::RemoveAllReporting;
    EXPECT_EQ(ops.failures(), failCleanup && tempLeftForCleanup ? 2u : 1u);
    for (std::size_t i = k; i < calls.size(); ++i) {
        if (calls[i].hook == Hook::Rename) {
            EXPECT_EQ(calls[i].second, dir.u16("pkg"));  // the old package goes back
        } else if (calls[i].hook == Hook::RemoveAll) {
            EXPECT_EQ(calls[i].path, dir.u16("pkg"));  // the new one goes
        } else if (calls[i].hook == Hook::RemoveAllReporting) {
            EXPECT_EQ(calls[i].path, temp);
        }
    }

    // Every outcome of a failed commit puts the old package back; the only
    // thing that may stay beside it is a temporary folder cleanup could not
    // remove.
    const TreeSnapshot after = snapshotTree(dir.path());
    EXPECT_EQ(subtree(after, "pkg", "pkg"), original);
    if (failCleanup && tempLeftForCleanup) {
        EXPECT_EQ(topLevelNames(after), (std::vector<std::string>{baseName(temp), "pkg"}));
    } else {
        EXPECT_EQ(after, original);
    }
}

TEST(CommitFaults, EveryFailingCallLeavesOldPackageAndReportsItsStep) {
    const Recording recording = recordCommit();
    // 6 calls to finish the changed parts, 5 unchanged parts copied, 6 for
    // the swap: a recording much shorter than that missed a phase.
    ASSERT_GE(recording.calls.size(), 30u);
    RecordProperty("commit_calls", static_cast<int>(recording.calls.size()));
    std::vector<Hook> seen;
    for (std::size_t k = 1; k <= recording.calls.size(); ++k) {
        runWithFailure(recording, k, false);
        if (std::find(seen.begin(), seen.end(), recording.calls[k - 1].hook) == seen.end()) {
            seen.push_back(recording.calls[k - 1].hook);
        }
        if (HasFailure()) break;  // one failing round tells the story
    }
    // Every kind of call a commit makes was failed at least once.
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<Hook>{Hook::AppendPath, Hook::GetParentPath, Hook::GetTempName, Hook::Exists,
                                       Hook::CreateFolders, Hook::CreateOutputStream, Hook::Copy, Hook::Rename,
                                       Hook::RemoveAll}));
}

TEST(CommitFaults, FailedCleanupAfterAnyFailureOnlyLeavesTheTemporaryFolder) {
    const Recording recording = recordCommit();
    for (std::size_t k = 1; k <= recording.calls.size(); ++k) {
        runWithFailure(recording, k, true);
        if (HasFailure()) break;
    }
}

TEST(CommitFaults, CallsBeyondTheCommitChangeNothing) {
    const Recording recording = recordCommit();
    TempDir dir;
    writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    ops.clearCalls();
    ops.failFrom(recording.calls.size() + 1);
    EXPECT_NO_THROW(package.close(false));
    EXPECT_EQ(ops.failures(), 0u);
    EXPECT_EQ(hooksOf(ops.calls(), 0, ops.calls().size()), hooksOf(recording.calls, 0, recording.calls.size()));
    EXPECT_EQ(snapshotTree(dir.path()), sampleAfterCommit());
}

// A package whose commit is about to start, with the calls of a successful
// commit recorded.
class CommitUndo : public ::testing::Test {
protected:
    void SetUp() override {
        original = writeSamplePackage(dir.path());
        package.open(OpenMode::ReadWrite);
        applySampleChanges(package);
        temp = package.getTempPackageRoot();
        ops.clearCalls();
    }

    // Where the old package was moved to, from the first rename.
    std::u16string asidePath() const {
        for (const Call& call : ops.calls()) {
            if (call.hook == Hook::Rename) return call.second;
        }
        ADD_FAILURE() << "the package was never moved aside";
        return {};
    }

    void expectClosedAndReleased() {
        EXPECT_FALSE(package.isOpen());
        EXPECT_EQ(package.getTempPackageRoot(), u"");
        EXPECT_EQ(openFilesBelow(dir.path()), 0);
    }

    TempDir dir;
    TreeSnapshot original;
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package{dir.u16("pkg"), ops};
    std::u16string temp;
};

TEST_F(CommitUndo, FailedRenameBackLeavesOldPackageAside) {
    ops.failCall(Hook::Rename, 2);
    ops.failCall(Hook::Rename, 3);
    EXPECT_OPC_EXCEPTION(package.close(false), "Could not commit changes: injected rename failure: " + kIoError,
                         systemCode(EIO));
    expectClosedAndReleased();
    const std::u16string aside = asidePath();
    EXPECT_EQ(std::filesystem::path(toUtf8(aside)).parent_path(), dir.path());
    const TreeSnapshot after = snapshotTree(dir.path());
    EXPECT_EQ(topLevelNames(after), std::vector<std::string>{baseName(aside)});
    EXPECT_EQ(subtree(after, baseName(aside), "pkg"), original);
    EXPECT_EQ(ops.count(Hook::Rename), 3u);
    EXPECT_EQ(ops.count(Hook::RemoveAll), 0u);
    EXPECT_EQ(ops.count(Hook::RemoveAllReporting), 1u);  // cleanup removed the temporary folder
}

TEST_F(CommitUndo, FailedTestForPackagePathSkipsTheRenameBack) {
    // The undo's existence test is the first one after the rename into place.
    const Recording recording = recordCommit();
    std::size_t existsBefore = 0;
    for (const Call& call : recording.calls) {
        if (call.hook == Hook::Rename && call.path == recording.tempRoot) break;
        if (call.hook == Hook::Exists) ++existsBefore;
    }
    ops.failCall(Hook::Rename, 2);
    ops.failCall(Hook::Exists, existsBefore + 1);
    EXPECT_OPC_EXCEPTION(package.close(false), "Could not commit changes: injected exists failure: " + kIoError,
                         systemCode(EIO));
    expectClosedAndReleased();
    const std::u16string aside = asidePath();
    const TreeSnapshot after = snapshotTree(dir.path());
    EXPECT_EQ(topLevelNames(after), std::vector<std::string>{baseName(aside)});
    EXPECT_EQ(subtree(after, baseName(aside), "pkg"), original);
    EXPECT_EQ(ops.count(Hook::Rename), 2u);
}

TEST_F(CommitUndo, FailedRemovalOfNewPackageLeavesBothFolders) {
    ops.failCall(Hook::RemoveAll, 1);
    ops.failCall(Hook::RemoveAll, 2);
    EXPECT_OPC_EXCEPTION(package.close(false), "Could not commit changes: injected removeAll failure: " + kIoError,
                         systemCode(EIO));
    expectClosedAndReleased();
    const std::u16string aside = asidePath();
    const TreeSnapshot after = snapshotTree(dir.path());
    EXPECT_EQ(topLevelNames(after), (std::vector<std::string>{baseName(aside), "pkg"}));
    EXPECT_EQ(subtree(after, baseName(aside), "pkg"), original);
    EXPECT_EQ(subtree(after, "pkg", "pkg"), sampleAfterCommit());
    EXPECT_EQ(ops.count(Hook::Rename), 2u);
    EXPECT_EQ(ops.count(Hook::RemoveAllReporting), 0u);  // the temporary folder is the package now
}

TEST_F(CommitUndo, FailedRenameBackAfterRemovalLeavesOnlyOldPackageAside) {
    ops.failCall(Hook::RemoveAll, 1);
    ops.failCall(Hook::Rename, 3);
    EXPECT_OPC_EXCEPTION(package.close(false), "Could not commit changes: injected rename failure: " + kIoError,
                         systemCode(EIO));
    expectClosedAndReleased();
    const std::u16string aside = asidePath();
    const TreeSnapshot after = snapshotTree(dir.path());
    EXPECT_EQ(topLevelNames(after), std::vector<std::string>{baseName(aside)});
    EXPECT_EQ(subtree(after, baseName(aside), "pkg"), original);
}

TEST_F(CommitUndo, FailedRemovalOfOldPackageIsUndone) {
    ops.failCall(Hook::RemoveAll, 1, EACCES);
    EXPECT_OPC_EXCEPTION(package.close(false),
                         "Could not commit changes: Could not remove the original package: Permission denied",
                         systemCode(EACCES));
    expectClosedAndReleased();
    EXPECT_EQ(snapshotTree(dir.path()), original);
    // One attempt each, whatever the error: no retry on permission denied.
    EXPECT_EQ(ops.count(Hook::RemoveAll), 2u);
    EXPECT_EQ(ops.count(Hook::Rename), 3u);
}

TEST_F(CommitUndo, FailedRenameIntoPlaceIsUndone) {
    ops.failCall(Hook::Rename, 2, EACCES);
    EXPECT_OPC_EXCEPTION(package.close(false),
                         "Could not commit changes: Could not rename the temporary package to final location: "
                         "Permission denied",
                         systemCode(EACCES));
    expectClosedAndReleased();
    EXPECT_EQ(snapshotTree(dir.path()), original);
    EXPECT_EQ(ops.count(Hook::Rename), 3u);
    EXPECT_EQ(ops.count(Hook::RemoveAll), 0u);  // nothing was at the package path
}

TEST_F(CommitUndo, WhateverAppearsAtPackagePathIsRemovedBeforeOldPackageReturns) {
    // Another program drops a folder at the package path between the two
    // renames: the real rename refuses to replace it.
    ops.setBeforeCall([&](const Call& call) {
        if (call.hook == Hook::Rename && call.path == temp) writeFile(dir.path() / "pkg" / "intruder.txt", "x");
    });
    EXPECT_OPC_EXCEPTION(package.close(false),
                         "Could not commit changes: Could not rename the temporary package to final location: "
                         "File exists",
                         systemCode(EEXIST));
    expectClosedAndReleased();
    EXPECT_EQ(snapshotTree(dir.path()), original);
    EXPECT_EQ(ops.count(Hook::RemoveAll), 1u);
}

TEST_F(CommitUndo, FailedMoveAsideUndoesNothing) {
    // A folder already at the aside name: the real rename refuses it.
    ops.setBeforeCall([&](const Call& call) {
        if (call.hook == Hook::Rename && call.path == dir.u16("pkg")) {
            std::filesystem::create_directories(toUtf8(call.second) + "/occupied");
        }
    });
    EXPECT_OPC_EXCEPTION(package.close(false),
                         "Could not commit changes: Could not move the original package to temporary location: "
                         "File exists",
                         systemCode(EEXIST));
    expectClosedAndReleased();
    const std::u16string aside = asidePath();
    TreeSnapshot expected = original;
    expected[baseName(aside) + "/"] = "";
    expected[baseName(aside) + "/occupied/"] = "";
    EXPECT_EQ(snapshotTree(dir.path()), expected);
    EXPECT_EQ(ops.count(Hook::Rename), 1u);
}

}  // namespace
}  // namespace opc::test::commit
