#include "CommitFixture.h"

#include "support/FaultyFileSystemOps.h"
#include "support/OpcAssertions.h"
#include "support/StreamHelpers.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

namespace opc::test::commit {
namespace {

using opc::fspackage::FileSystemPartInfo;
using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::OpenMode;

std::string baseName(const std::u16string& path) { return std::filesystem::path(toUtf8(path)).filename().native(); }

std::vector<std::u16string> partNames(opc::interfaces::IPhysicalPackage& package) {
    std::vector<std::u16string> names;
    for (auto* part : package.getParts()) names.push_back(part->getName());
    return names;
}

// The unchanged sample package, as getParts() lists it.
const std::vector<std::u16string> kSampleParts = {u"/_rels/.rels",       u"/a/b/c/deep.xml",
                                                   u"/custom/item.xml",   u"/docProps/core.xml",
                                                   u"/word/document.xml", u"/word/media/image1.png",
                                                   u"/word/styles.xml"};

// After close the same object opens again and sees what is on disk; the
// second close, of an unmodified package, changes nothing.
void expectReopens(FileSystemPhysicalPackage& package, const std::vector<std::u16string>& names,
                   const std::filesystem::path& parent) {
    const TreeSnapshot before = snapshotTree(parent);
    ASSERT_NO_THROW(package.open(OpenMode::ReadWrite));
    EXPECT_TRUE(package.isOpen());
    EXPECT_EQ(partNames(package), names);
    package.close(false);
    EXPECT_EQ(snapshotTree(parent), before);
}

TEST(Close, OfPackageNeverOpenedDoesNothing) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    for (const bool revert : {false, true}) {
        FaultyFileSystemOps ops;
        FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
        ops.clearCalls();
        ops.failFrom(1);  // any file-system call would throw
        EXPECT_NO_THROW(package.close(revert));
        EXPECT_NO_THROW(package.close(!revert));
        EXPECT_TRUE(ops.calls().empty());
        EXPECT_FALSE(package.isOpen());
        EXPECT_EQ(snapshotTree(dir.path()), original);
    }
}

TEST(Close, OfPackageAlreadyClosedDoesNothing) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    package.close(true);
    ops.clearCalls();
    ops.failFrom(1);
    EXPECT_NO_THROW(package.close(false));
    EXPECT_NO_THROW(package.close(true));
    EXPECT_TRUE(ops.calls().empty());
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

TEST(Close, ReadModeClosesStreamsAndTouchesNothing) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    for (const bool revert : {false, true}) {
        FaultyFileSystemOps ops;
        FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
        package.open(OpenMode::Read);
        EXPECT_EQ(package.getTempPackageRoot(), u"");
        EXPECT_EQ(readAll(findPart(package, u"/word/document.xml")->getInputStream()), "old document");
        char head[2];
        EXPECT_EQ(findPart(package, u"/a/b/c/deep.xml")->getInputStream()->read(head, 2), 2);
        EXPECT_EQ(readAll(package.getContentTypeInputStream()), "<Types/>");
        EXPECT_EQ(openFilesBelow(dir.path()), 3);

        ops.clearCalls();
        EXPECT_NO_THROW(package.close(revert));
        EXPECT_TRUE(ops.calls().empty());
        EXPECT_EQ(ops.count(Hook::CreateOutputStream) + ops.count(Hook::Copy) + ops.count(Hook::Rename) +
                      ops.count(Hook::RemoveAll) + ops.count(Hook::RemoveAllReporting),
                  0u);
        EXPECT_EQ(openFilesBelow(dir.path()), 0);
        EXPECT_FALSE(package.isOpen());
        EXPECT_EQ(snapshotTree(dir.path()), original);
        expectReopens(package, kSampleParts, dir.path());
    }
}

TEST(Close, UnmodifiedReadWritePackageOnlyLosesItsTemporaryFolder) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    for (const bool revert : {false, true}) {
        FaultyFileSystemOps ops;
        FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
        package.open(OpenMode::ReadWrite);
        const std::u16string temp = package.getTempPackageRoot();
        EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{baseName(temp), "pkg"}));
        EXPECT_EQ(readAll(findPart(package, u"/word/styles.xml")->getInputStream()), "<styles/>");

        ops.clearCalls();
        EXPECT_NO_THROW(package.close(revert));
        ASSERT_EQ(ops.calls().size(), 1u);
        EXPECT_EQ(ops.calls()[0].hook, Hook::RemoveAllReporting);
        EXPECT_EQ(ops.calls()[0].path, temp);
        EXPECT_EQ(openFilesBelow(dir.path()), 0);
        EXPECT_EQ(package.getTempPackageRoot(), u"");
        EXPECT_EQ(snapshotTree(dir.path()), original);
        expectReopens(package, kSampleParts, dir.path());
    }
}

TEST(Close, RevertDiscardsEveryChange) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    EXPECT_EQ(openFilesBelow(dir.path()), 3);  // styles read; document and added.xml written

    ops.clearCalls();
    EXPECT_NO_THROW(package.close(true));
    EXPECT_EQ(ops.calls().size(), 1u);
    EXPECT_EQ(ops.count(Hook::RemoveAllReporting), 1u);
    EXPECT_EQ(openFilesBelow(dir.path()), 0);
    EXPECT_EQ(snapshotTree(dir.path()), original);
    expectReopens(package, kSampleParts, dir.path());
}

TEST(Close, DestroyingModifiedPackageDiscardsEveryChange) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    {
        FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
        package.open(OpenMode::ReadWrite);
        applySampleChanges(package);
        ops.clearCalls();
    }
    EXPECT_EQ(ops.count(Hook::Rename) + ops.count(Hook::Copy) + ops.count(Hook::RemoveAll), 0u);
    EXPECT_EQ(openFilesBelow(dir.path()), 0);
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

// A mode that stages nothing has nothing to commit: even a package marked
// modified leaves its folder where it is, rather than moving it aside.
TEST(Close, ModifiedPackageOfModeThatStagesNothingTouchesNothing) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(static_cast<OpenMode>(3));
    // Marks the package modified even though the part lookup fails.
    EXPECT_OPC_EXCEPTION(package.getContentTypeOutputStream(), "Content types stream does not exist", emptyCode());
    ops.clearCalls();
    EXPECT_NO_THROW(package.close(false));
    EXPECT_FALSE(package.isOpen());
    EXPECT_TRUE(ops.calls().empty());
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

TEST(Close, FailedRemovalOfTemporaryFolderIsNotReported) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    const std::u16string temp = package.getTempPackageRoot();
    ops.failCall(Hook::RemoveAllReporting, 1);
    EXPECT_NO_THROW(package.close(true));
    EXPECT_FALSE(package.isOpen());
    EXPECT_EQ(package.getTempPackageRoot(), u"");
    // The staged folder stays behind, beside an untouched package.
    const TreeSnapshot after = snapshotTree(dir.path());
    EXPECT_EQ(topLevelNames(after), (std::vector<std::string>{baseName(temp), "pkg"}));
    EXPECT_EQ(subtree(after, "pkg", "pkg"), original);
    EXPECT_EQ(subtree(after, baseName(temp), "t"),
              treeOf("t", {{"word/document.xml", "new document"}, {"new/added.xml", "added"}}));
}

TEST(Commit, ReadWritePackageHoldsExactlyTheNewParts) {
    TempDir dir;
    writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    const std::u16string temp = package.getTempPackageRoot();

    ops.clearCalls();
    EXPECT_NO_THROW(package.close(false));
    EXPECT_FALSE(package.isOpen());
    EXPECT_EQ(package.getTempPackageRoot(), u"");
    EXPECT_EQ(openFilesBelow(dir.path()), 0);
    EXPECT_EQ(snapshotTree(dir.path()), sampleAfterCommit());

    // Five unchanged parts copied, one empty file made, then the swap: old
    // folder aside, temporary folder in, old folder removed. Nothing is left
    // for cleanup to remove.
    EXPECT_EQ(ops.count(Hook::Copy), 5u);
    EXPECT_EQ(ops.count(Hook::CreateOutputStream), 1u);
    EXPECT_EQ(ops.count(Hook::RemoveAllReporting), 0u);
    std::vector<Call> swap;
    for (const Call& call : ops.calls()) {
        if (call.hook == Hook::Rename || call.hook == Hook::RemoveAll) swap.push_back(call);
    }
    ASSERT_EQ(swap.size(), 3u);
    const std::u16string aside = swap[0].second;
    EXPECT_EQ(swap[0].path, dir.u16("pkg"));
    EXPECT_EQ(baseName(aside).substr(0, 5), ".opc-");
    EXPECT_EQ(baseName(aside).size(), 21u);
    EXPECT_EQ(std::filesystem::path(toUtf8(aside)).parent_path(), dir.path());
    EXPECT_EQ(swap[1].hook, Hook::Rename);
    EXPECT_EQ(swap[1].path, temp);
    EXPECT_EQ(swap[1].second, dir.u16("pkg"));
    EXPECT_EQ(swap[2].hook, Hook::RemoveAll);
    EXPECT_EQ(swap[2].path, aside);

    expectReopens(package,
                  {u"/_rels/.rels", u"/a/b/c/deep.xml", u"/new/added.xml", u"/new/deeper/unwritten.xml",
                   u"/word/document.xml", u"/word/media/image1.png", u"/word/styles.xml"},
                  dir.path());
}

TEST(Commit, UnchangedPartsInNestedFoldersGetTheirFolders) {
    TempDir dir;
    writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    const std::u16string temp = package.getTempPackageRoot();
    writeAll(package.getContentTypeOutputStream(), "<Types></Types>");
    ops.clearCalls();
    package.close(false);

    std::vector<std::u16string> made;
    for (const Call& call : ops.calls()) {
        if (call.hook == Hook::CreateFolders) made.push_back(call.path);
    }
    // Each folder is made once, by the first part that needs it.
    EXPECT_EQ(made, (std::vector<std::u16string>{temp + u"/_rels", temp + u"/a/b/c", temp + u"/custom",
                                                 temp + u"/docProps", temp + u"/word", temp + u"/word/media"}));
    Files files = sampleFiles();
    files.erase("[trash]/discarded.xml");
    files["[Content_Types].xml"] = "<Types></Types>";
    EXPECT_EQ(snapshotTree(dir.path()), treeOf("pkg", files));
}

TEST(Commit, CreatedPartTakesOverThePartOfItsName) {
    TempDir dir;
    writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    writeAll(package.createPart(u"/word/styles.xml", u"text/xml", FileSystemPartInfo())->getOutputStream(), "mine");
    package.createPart(u"/a/b/c/deep.xml", u"text/xml", FileSystemPartInfo());
    ops.clearCalls();
    package.close(false);

    EXPECT_EQ(ops.count(Hook::Copy), 6u);
    Files files = sampleFiles();
    files.erase("[trash]/discarded.xml");
    files["word/styles.xml"] = "mine";
    files["a/b/c/deep.xml"] = "";
    EXPECT_EQ(snapshotTree(dir.path()), treeOf("pkg", files));
}

TEST(Commit, CreateOverExistingFolderCarriesNothingOver) {
    TempDir dir;
    writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::Create);
    writeAll(package.getContentTypeOutputStream(), "<Types/>");
    writeAll(package.createPart(u"/word/document.xml", u"text/xml", FileSystemPartInfo())->getOutputStream(), "fresh");
    ops.clearCalls();
    EXPECT_NO_THROW(package.close(false));

    EXPECT_EQ(snapshotTree(dir.path()),
              treeOf("pkg", {{"[Content_Types].xml", "<Types/>"}, {"word/document.xml", "fresh"}}));
    EXPECT_EQ(ops.count(Hook::Copy), 0u);
    EXPECT_EQ(ops.count(Hook::Rename), 2u);
    EXPECT_EQ(ops.count(Hook::RemoveAll), 1u);
    expectReopens(package, {u"/word/document.xml"}, dir.path());
}

TEST(Commit, CreateOverNothingIsOneRename) {
    TempDir dir;
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::Create);
    const std::u16string temp = package.getTempPackageRoot();
    ops.clearCalls();
    EXPECT_NO_THROW(package.close(false));

    // Opening registered the content-types part, so the package counts as
    // modified and is committed with that part as an empty file.
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"pkg/", ""}, {"pkg/[Content_Types].xml", ""}}));
    ASSERT_EQ(ops.count(Hook::Rename), 1u);
    EXPECT_EQ(ops.count(Hook::RemoveAll) + ops.count(Hook::RemoveAllReporting) + ops.count(Hook::Copy), 0u);
    for (const Call& call : ops.calls()) {
        if (call.hook != Hook::Rename) continue;
        EXPECT_EQ(call.path, temp);
        EXPECT_EQ(call.second, dir.u16("pkg"));
    }
    expectReopens(package, {}, dir.path());
}

TEST(Close, ThrowingCloseStillClosesAndReleasesEverything) {
    TempDir dir;
    const TreeSnapshot original = writeSamplePackage(dir.path());
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    ops.failCall(Hook::Copy, 2);
    EXPECT_OPC_EXCEPTION(package.close(false), "Could not copy original part to destination package: Input/output error",
                         systemCode(EIO));
    EXPECT_FALSE(package.isOpen());
    EXPECT_EQ(package.getTempPackageRoot(), u"");
    EXPECT_EQ(openFilesBelow(dir.path()), 0);
    EXPECT_EQ(snapshotTree(dir.path()), original);
    ops.clearFailures();
    expectReopens(package, kSampleParts, dir.path());

    // And the same object commits on the next round.
    package.open(OpenMode::ReadWrite);
    applySampleChanges(package);
    EXPECT_NO_THROW(package.close(false));
    EXPECT_EQ(snapshotTree(dir.path()), sampleAfterCommit());
}

}  // namespace
}  // namespace opc::test::commit
