#include "CommitFixture.h"

#include "support/RawZip.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace opc::test::commit {
namespace {

const std::string kIo = ": Input/output error", kSwap = "Could not commit changes: ";
const std::string kOutputFailed = "Failed to create or open file system output stream";

std::vector<Hook> hooksOf(const std::vector<Call>& calls, std::size_t from, std::size_t to) {
    std::vector<Hook> hooks;
    for (std::size_t i = from; i < to && i < calls.size(); ++i) hooks.push_back(calls[i].hook);
    return hooks;
}

// A close that commits nothing leaves the package byte for byte, releases
// every file and at most removes the temporary folder.
TEST(Close, WithoutCommitLeavesPackageAndRemovesOnlyTheTemporaryFolder) {
    enum Close { Keep, Revert, Destroy };
    for (const auto& [name, mode, changed, how] :
         std::vector<std::tuple<const char*, std::optional<OpenMode>, bool, Close>>{
             {"never opened", std::nullopt, false, Keep},
             {"read, kept", OpenMode::Read, false, Keep},
             {"read, reverted", OpenMode::Read, false, Revert},
             {"unmodified, kept", OpenMode::ReadWrite, false, Keep},
             {"unmodified, reverted", OpenMode::ReadWrite, false, Revert},
             {"changed, reverted", OpenMode::ReadWrite, true, Revert},
             {"changed, destroyed", OpenMode::ReadWrite, true, Destroy}}) {
        SCOPED_TRACE(name);
        Sample s;
        if (mode) {
            s.open(*mode, changed);
            char head[2];
            EXPECT_EQ(s.part(u"/a/b/c/deep.xml")->getInputStream()->read(head, 2), 2);
        }
        s.ops.clearCalls();
        if (how == Destroy) {
            s.package.reset();
        } else {
            EXPECT_NO_THROW(s.package->close(how == Revert));
        }
        std::vector<std::pair<Hook, std::u16string>> calls, removal{{Hook::RemoveAllReporting, s.temp}};
        for (const Call& call : s.ops.calls()) calls.emplace_back(call.hook, call.path);
        EXPECT_EQ(calls, s.temp.empty() ? decltype(calls){} : removal);
        EXPECT_EQ(openFilesBelow(s.dir.path()), 0);
        EXPECT_EQ(s.after(), s.original);
        if (s.package) s.expectClosedAndReleased();
    }
}

// A mode that stages nothing has no temporary folder, yet a modified package
// commits: its swap fails and puts the package back; a created part fails as
// its empty file is written.
TEST(Close, ModifiedPackageOfModeThatStagesNothingFailsItsSwapAndPutsPackageBack) {
    const std::string renameFailed =
        kSwap + "Could not rename the temporary package to final location: No such file or directory";
    const Hook P = Hook::GetParentPath, T = Hook::GetTempName, E = Hook::Exists, R = Hook::Rename;
    for (const auto& [name, existing, created, message, code, hooks] :
         std::vector<std::tuple<const char*, bool, bool, std::string, int, std::vector<Hook>>>{
             {"over the package", true, false, renameFailed, ENOENT, {P, T, E, R, R, E, R}},
             {"over nothing", false, false, renameFailed, ENOENT, {P, T, E, R, E}},
             {"with a created part", true, true, kOutputFailed, 0, {}}}) {
        SCOPED_TRACE(name);
        Sample s;
        if (!existing) fs::remove_all(s.dir.path() / "pkg");
        const TreeSnapshot before = s.after();
        s.open(static_cast<OpenMode>(3), false);
        if (created) {
            s.package->createPart(u"/new.xml", u"", FileSystemPartInfo());
        } else {  // marks the package modified even though the part lookup fails
            EXPECT_OPC_EXCEPTION(s.package->getContentTypeOutputStream(), "Content types stream does not exist",
                                 emptyCode());
        }
        s.ops.clearCalls();
        EXPECT_OPC_EXCEPTION(s.package->close(false), message, code ? systemCode(code) : emptyCode());
        s.expectClosedAndReleased();
        const std::vector<Call>& calls = s.ops.calls();
        ASSERT_EQ(hooksOf(calls, 0, calls.size()), hooks);
        if (existing && !created) {  // aside, the empty temporary root onto the path, back
            const std::u16string pkg = s.dir.u16("pkg");
            EXPECT_EQ(std::make_tuple(calls[3].path, calls[4].path, calls[6].path, calls[6].second),
                      std::make_tuple(pkg, std::u16string(), calls[3].second, pkg));
        }
        EXPECT_EQ(s.after(), before);
    }
}

// A failed commit closes the package; the same object commits on the next round.
TEST(Commit, ReadWritePackageHoldsExactlyTheNewParts) {
    Sample s;
    s.open();
    s.ops.failCall(Hook::Copy, 2);
    EXPECT_OPC_EXCEPTION(s.package->close(false), "Could not copy original part to destination package" + kIo,
                         systemCode(EIO));
    s.expectClosedAndReleased();
    s.ops.clearFailures();
    s.open();
    EXPECT_NO_THROW(s.package->close(false));
    s.expectClosedAndReleased();
    EXPECT_EQ(s.after(), sampleAfterCommit());

    // Five unchanged parts copied, each folder made once; then old folder
    // aside, temporary folder in, old folder removed: cleanup removes nothing.
    EXPECT_EQ(s.ops.count(Hook::Copy), 5u);
    EXPECT_EQ(s.ops.count(Hook::RemoveAllReporting), 0u);
    std::vector<std::u16string> made;
    std::vector<std::tuple<Hook, std::u16string, std::u16string>> swap;
    for (const Call& c : s.ops.calls()) {
        if (c.hook == Hook::CreateFolders) made.push_back(c.path.substr(s.temp.size()));
        if (c.hook == Hook::Rename || c.hook == Hook::RemoveAll) swap.emplace_back(c.hook, c.path, c.second);
    }
    EXPECT_EQ(made, (std::vector<std::u16string>{u"/new/deeper", u"/_rels", u"/a/b/c", u"/word/media"}));
    ASSERT_FALSE(swap.empty());
    const std::u16string aside = std::get<2>(swap[0]), pkg = s.dir.u16("pkg");
    EXPECT_EQ(fs::path(toUtf8(aside)).parent_path(), s.dir.path());
    EXPECT_EQ(baseName(aside).rfind(".opc-", 0), 0u);
    EXPECT_EQ(swap,
              (decltype(swap){{Hook::Rename, pkg, aside}, {Hook::Rename, s.temp, pkg}, {Hook::RemoveAll, aside, u""}}));
}

TEST(Commit, CreateReplacesWhateverIsAtThePackagePath) {
    for (const bool existing : {true, false}) {
        SCOPED_TRACE(existing ? "over the sample package" : "over nothing");
        Sample s;
        if (!existing) fs::remove_all(s.dir.path() / "pkg");
        s.open(OpenMode::Create, false);
        EXPECT_NO_THROW(s.package->close(false));
        // Opening registered the content-types part: unwritten, it is
        // committed as an empty file, and nothing of the old folder is left.
        EXPECT_EQ(s.after(), treeOf({{"[Content_Types].xml", ""}}));
        EXPECT_EQ(s.ops.count(Hook::Copy) + s.ops.count(Hook::RemoveAllReporting), 0u);
        EXPECT_EQ(s.ops.count(Hook::Rename), existing ? 2u : 1u);
        EXPECT_EQ(s.ops.count(Hook::RemoveAll), existing ? 1u : 0u);
    }
}

// Real packages unpacked to folders read back through the part streams as
// exactly their ZIP entries; then the first part rewritten, the last one
// deleted: every other entry comes through the commit byte for byte.
TEST(CommitCorpus, RewriteAndDeleteKeepEveryOtherEntry) {
    const auto archives = corpusPackages();
    ASSERT_GE(archives.size(), 10u);
    for (const auto& archive : archives) {
        SCOPED_TRACE(archive.filename().native());
        TempDir dir;
        unzipToFolder(archive, dir.path() / "pkg");
        Files expected;
        for (auto& [name, bytes] : readZipEntries(archive)) expected[name] = std::move(bytes);

        FileSystemPhysicalPackage package(dir.u16("pkg"));
        package.open(OpenMode::ReadWrite);
        const auto parts = package.getParts();
        ASSERT_GE(parts.size(), 2u);
        Files read{{"[Content_Types].xml", readAll(package.getContentTypeInputStream())}};
        for (auto* part : parts) {
            EXPECT_TRUE(read.emplace(toUtf8(part->getName()).substr(1), readAll(part->getInputStream(), 1000)).second)
                << "listed twice: " << toUtf8(part->getName());
        }
        EXPECT_TRUE(read == expected) << read.size() << " parts read, " << expected.size() << " entries";
        const std::string rewritten = toUtf8(parts.front()->getName()), deleted = toUtf8(parts.back()->getName());
        writeAll(parts.front()->getOutputStream(), "rewritten " + rewritten);
        package.deletePart(parts.back()->getName());
        package.close(false);
        ASSERT_EQ(expected.erase(deleted.substr(1)), 1u);
        expected[rewritten.substr(1)] = "rewritten " + rewritten;
        EXPECT_EQ(snapshotTree(dir.path()), treeOf(expected));
    }
}

// Every file-system call a commit makes is failed in turn: the package path
// holds the old package or the whole new one, and the caller learns the step.

std::string injected(Hook hook) { return std::string("injected ") + hookName(hook) + " failure"; }

// What failing call k of the recorded commit must lead to: the message, the
// code (0: none), and the undo and cleanup calls after it.
using Expectation = std::tuple<std::string, int, std::vector<Hook>>;

Expectation expectationFor(const Sample& recorded, std::size_t k) {
    const std::vector<Call>& calls = recorded.ops.calls();
    const std::u16string packageRoot = recorded.package->getPackageRoot();
    const auto numberOf = [&](Hook hook, const std::u16string& path) {
        std::size_t i = 0;
        while (i < calls.size() && (calls[i].hook != hook || calls[i].path != path)) ++i;
        return i + 1;
    };
    // Copying starts with the first part path in the package folder, the
    // swap with the parent folder of the package path.
    const std::size_t swap = numberOf(Hook::GetParentPath, packageRoot);
    const std::size_t copy = std::min(numberOf(Hook::AppendPath, packageRoot), swap);
    const Call& call = calls.at(k - 1);
    const Hook h = call.hook;
    const std::vector<Hook> cleanup{Hook::RemoveAllReporting};
    const bool folderStep = h == Hook::GetParentPath || h == Hook::Exists || h == Hook::CreateFolders;

    if (k < swap && h == Hook::AppendPath) return {injected(h), EIO, cleanup};
    if (k < copy && h == Hook::CreateOutputStream) return {kOutputFailed, 0, cleanup};
    if (k < copy && folderStep)
        return {"Could not create directory structure for part output stream" + kIo, EIO, cleanup};
    if (k >= copy && k < swap && (folderStep || h == Hook::Copy)) {
        return {"Could not copy original part to destination package" + kIo, EIO, cleanup};
    }
    if (k >= swap && (h == Hook::GetParentPath || h == Hook::GetTempName || h == Hook::Exists)) {
        return {kSwap + injected(h) + kIo, EIO, cleanup};
    }
    if (h == Hook::Rename && call.path == packageRoot) {
        return {kSwap + "Could not move the original package to temporary location" + kIo, EIO, cleanup};
    }
    if (h == Hook::Rename && call.path == recorded.temp) {
        return {kSwap + "Could not rename the temporary package to final location" + kIo,
                EIO,
                {Hook::Exists, Hook::Rename, Hook::RemoveAllReporting}};
    }
    if (h == Hook::RemoveAll)
        return {kSwap + "Could not remove the original package" + kIo, EIO, {Hook::RemoveAll, Hook::Rename}};
    ADD_FAILURE() << "call " << k << " (" << hookName(h) << ") was not expected in a commit";
    return {};
}

TEST(CommitFaults, EveryFailingCallLeavesOldPackageAndReportsItsStep) {
    Sample recorded;
    recorded.open();
    recorded.package->close(false);
    ASSERT_EQ(recorded.after(), sampleAfterCommit());
    const std::vector<Call>& recording = recorded.ops.calls();
    // 6 calls to finish the changed parts, 5 unchanged parts copied, 6 for
    // the swap: a much shorter recording missed a phase.
    ASSERT_GE(recording.size(), 30u);
    for (const bool failCleanup : {false, true}) {
        for (std::size_t k = 1; k <= recording.size() && !HasFailure(); ++k) {
            SCOPED_TRACE("call " + std::to_string(k) + ": " + hookName(recording[k - 1].hook) +
                         (failCleanup ? ", cleanup failing too" : ""));
            Sample s;
            s.open();
            s.ops.failGlobalCall(k);
            if (failCleanup) s.ops.failCall(Hook::RemoveAllReporting, 1);
            const auto [message, code, tail] = expectationFor(recorded, k);
            EXPECT_OPC_EXCEPTION(s.package->close(false), message, code ? systemCode(code) : emptyCode());
            s.expectClosedAndReleased();

            // Up to the failure the commit repeats the recorded calls; after
            // it come the undo steps and cleanup, each tried once.
            const std::vector<Call>& calls = s.ops.calls();
            EXPECT_EQ(hooksOf(calls, 0, k), hooksOf(recording, 0, k));
            EXPECT_EQ(hooksOf(calls, k, calls.size()), tail);
            const bool tempLeft = failCleanup && !tail.empty() && tail.back() == Hook::RemoveAllReporting;
            EXPECT_EQ(s.ops.failures(), tempLeft ? 2u : 1u);
            // The undo works on the package path, cleanup on the temporary folder.
            for (auto c = calls.begin() + k; c < calls.end(); ++c) {
                EXPECT_EQ(c->hook == Hook::Rename ? c->second : c->path,
                          c->hook == Hook::RemoveAllReporting ? s.temp : s.dir.u16("pkg"));
            }
            // The old package is back; beside it may stay only a temporary
            // folder cleanup could not remove.
            const TreeSnapshot after = s.after();
            EXPECT_EQ(subtree(after, "pkg"), s.original);
            using Names = std::vector<std::string>;
            EXPECT_EQ(topLevelNames(after), (tempLeft ? Names{baseName(s.temp), "pkg"} : Names{"pkg"}));
        }
    }
}

// When an undo step fails too, the old package stays whole aside, beside the
// journal for recovery, marked "U" once the undo began to remove the path.
TEST(CommitFaults, FailedUndoLeavesOldPackageAside) {
    for (const auto& [failing, message, newLeft, state] :
         std::vector<std::tuple<std::vector<std::pair<Hook, std::size_t>>, std::string, bool, char>>{
             {{{Hook::Rename, 2}, {Hook::Rename, 3}}, "injected rename failure" + kIo, false, 'S'},
             {{{Hook::RemoveAll, 1}, {Hook::RemoveAll, 2}}, "injected removeAll failure" + kIo, true, 'S'},
             {{{Hook::RemoveAll, 1}, {Hook::Rename, 3}}, "injected rename failure" + kIo, false, 'U'}}) {
        SCOPED_TRACE(message + ", first " + hookName(failing[0].first));
        Sample s;
        s.open();
        for (const auto& [hook, number] : failing) s.ops.failCall(hook, number);
        EXPECT_OPC_EXCEPTION(s.package->close(false), kSwap + message, systemCode(EIO));
        s.expectClosedAndReleased();

        const auto rename = std::find_if(s.ops.calls().begin(), s.ops.calls().end(),
                                         [](const Call& call) { return call.hook == Hook::Rename; });
        ASSERT_NE(rename, s.ops.calls().end());
        TreeSnapshot expected = subtree(s.original, "pkg", baseName(rename->second));
        if (newLeft)
            for (const auto& entry : sampleAfterCommit()) expected.insert(entry);
        TreeSnapshot left = s.after();
        const auto journal = std::find_if(left.begin(), left.end(), [](const auto& entry) {
            return entry.first.rfind(".opc-", 0) == 0 && entry.first.find(".journal") == 21;
        });
        ASSERT_NE(journal, left.end());
        EXPECT_EQ(journal->second, "OPCSWAP1" + std::string(1, state) + "pkg" + '\0' + baseName(rename->second) + '\0');
        left.erase(journal);
        EXPECT_EQ(left, expected);
    }
}

}  // namespace
}  // namespace opc::test::commit
