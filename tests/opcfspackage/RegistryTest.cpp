#include "PackageTestHelpers.h"

#include "support/FaultyFileSystemOps.h"
#include "support/OpcAssertions.h"
#include "support/StreamHelpers.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace opc::test::fspackage {
namespace {

using opc::fspackage::FileSystemPartInfo;
using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;

const std::u16string kContentTypes = u"/[Content_Types].xml";
const char* const kRefusedDelete =
    "A part cannot be deleted if it has just been created or modified. Package must be closed first.";

IPhysicalPart* create(FileSystemPhysicalPackage& package, const std::u16string& name,
                      const std::u16string& contentType = u"application/xml") {
    return package.createPart(name, contentType, FileSystemPartInfo());
}

TEST(Registry, GetPartsListsChangedPartsFirst) {
    TempDir dir;
    writePackage(dir.path(), {{"a", "A"}, {"b", "B"}, {"c", "C"}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::ReadWrite);
    EXPECT_EQ(partNames(package), (std::vector<std::u16string>{u"/a", u"/b", u"/c"}));
    findPart(package, u"/b")->getOutputStream();
    EXPECT_EQ(partNames(package), (std::vector<std::u16string>{u"/b", u"/a", u"/c"}));
    create(package, u"/0");
    create(package, u"/z");
    EXPECT_EQ(partNames(package), (std::vector<std::u16string>{u"/0", u"/b", u"/z", u"/a", u"/c"}));
}

TEST(Registry, NamesOrderByUtf16CodeUnit) {
    TempDir dir;
    // U+00E9, U+1F600 (a surrogate pair, D83D DE00) and U+FF21: UTF-16 code
    // units put the pair between the other two, unlike code points or UTF-8.
    writePackage(dir.path(), {{"a", "1"},
                              {"Z", "2"},
                              {"a-b", "3"},
                              {"b/c", "4"},
                              {"bc", "5"},
                              {"\xc3\xa9", "6"},
                              {"\xf0\x9f\x98\x80", "7"},
                              {"\xef\xbc\xa1", "8"}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::Read);
    EXPECT_EQ(partNames(package), (std::vector<std::u16string>{u"/Z", u"/a", u"/a-b", u"/b/c", u"/bc", u"/\u00e9",
                                                               u"/\U0001F600", u"/\uFF21"}));
}

TEST(Registry, NameSortsBeforeNamesItPrefixes) {
    TempDir dir;
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::Create);
    create(package, u"/a0");
    create(package, u"/a/b");
    create(package, u"/a");
    EXPECT_EQ(partNames(package), (std::vector<std::u16string>{u"/a", u"/a/b", u"/a0"}));
}

TEST(Registry, ContentTypesPartIsNeverListed) {
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "A"}, {"sub/[Content_Types].xml", "nested"}});
    const std::vector<std::u16string> listed = {u"/a.xml", u"/sub/[Content_Types].xml"};
    for (const OpenMode mode : {OpenMode::Read, OpenMode::ReadWrite}) {
        SCOPED_TRACE(mode);
        FileSystemPhysicalPackage package(dir.u16("pkg"));
        package.open(mode);
        EXPECT_EQ(partNames(package), listed);
        EXPECT_EQ(readAll(package.getContentTypeInputStream()), "<Types/>");
        if (mode == OpenMode::ReadWrite) {
            package.getContentTypeOutputStream();  // now a changed part
            EXPECT_EQ(partNames(package), listed);
        }
    }
    FileSystemPhysicalPackage created(dir.u16("new"));
    created.open(OpenMode::Create);
    EXPECT_TRUE(created.getParts().empty());
    create(created, u"/x.xml");
    EXPECT_EQ(partNames(created), std::vector<std::u16string>{u"/x.xml"});
}

TEST(Registry, DeletePartDropsUnchangedPartFromMemoryOnly) {
    TempDir dir;
    const TreeSnapshot original = writePackage(dir.path(), {{"a.xml", "AAAA"}, {"b.xml", "B"}});
    const TreeSnapshot packageFolder = snapshotTree(dir.path() / "pkg");
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::ReadWrite);
    char first = 0;
    ASSERT_EQ(findPart(package, u"/a.xml")->getInputStream()->read(&first, 1), 1);
    EXPECT_EQ(openFilesBelow(dir.path() / "pkg"), 1);

    package.deletePart(u"/a.xml");
    EXPECT_EQ(openFilesBelow(dir.path() / "pkg"), 0);  // its stream went with it
    EXPECT_EQ(partNames(package), std::vector<std::u16string>{u"/b.xml"});
    EXPECT_OPC_EXCEPTION(package.deletePart(u"/a.xml"), "Part does not exist", emptyCode());
    EXPECT_OPC_EXCEPTION(package.deletePart(u"/never.xml"), "Part does not exist", emptyCode());
    EXPECT_OPC_EXCEPTION(package.deletePart(u"a.xml"), "Part does not exist", emptyCode());
    EXPECT_EQ(snapshotTree(dir.path() / "pkg"), packageFolder);

    package.close(true);
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

TEST(Registry, DeleteRefusesCreatedAndWrittenParts) {
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "A"}, {"b.xml", "B"}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::ReadWrite);
    create(package, u"/new.xml");
    findPart(package, u"/b.xml")->getOutputStream();
    EXPECT_OPC_EXCEPTION(package.deletePart(u"/new.xml"), kRefusedDelete, emptyCode());
    EXPECT_OPC_EXCEPTION(package.deletePart(u"/b.xml"), kRefusedDelete, emptyCode());
    EXPECT_EQ(partNames(package), (std::vector<std::u16string>{u"/b.xml", u"/new.xml", u"/a.xml"}));
}

TEST(Registry, DeletedContentTypesPartCannotBeReached) {
    TempDir dir;
    const TreeSnapshot original = writePackage(dir.path(), {{"a.xml", "A"}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::Read);
    ASSERT_NO_THROW(package.deletePart(kContentTypes));
    EXPECT_OPC_EXCEPTION(package.getParts(), "Content types stream does not exist", emptyCode());
    EXPECT_OPC_EXCEPTION(package.getContentTypeInputStream(), "Content types stream does not exist", emptyCode());
    EXPECT_OPC_EXCEPTION(package.getContentTypeOutputStream(), "Content types stream does not exist", emptyCode());
    EXPECT_OPC_EXCEPTION(package.getContentTypesPart(), "Content types stream does not exist", emptyCode());
    EXPECT_OPC_EXCEPTION(package.deletePart(kContentTypes), "Part does not exist", emptyCode());
    // A package read for reading is never committed, deletion or not.
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

TEST(Registry, ContentTypeOutputStreamCountsAsChangeEvenWhenMissing) {
    // The change shows in the commit: a committed package loses its "[trash]"
    // folder and its empty folders, an untouched one keeps them.
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "A"}, {"[trash]/old.xml", "T"}});
    std::filesystem::create_directories(dir.path() / "pkg" / "empty");
    const TreeSnapshot withEmpty = snapshotTree(dir.path());
    {
        FileSystemPhysicalPackage untouched(dir.u16("pkg"));
        untouched.open(OpenMode::ReadWrite);
        untouched.close(false);
    }
    EXPECT_EQ(snapshotTree(dir.path()), withEmpty);

    FileSystemPhysicalPackage package(dir.u16("pkg"));
    // Before open no part is registered, the content types included.
    EXPECT_OPC_EXCEPTION(package.getContentTypeOutputStream(), "Content types stream does not exist", emptyCode());
    package.open(OpenMode::ReadWrite);
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"pkg/", ""}, {"pkg/[Content_Types].xml", "<Types/>"}, {"pkg/a.xml", "A"}}));
}

TEST(Registry, CreateOverFileInTemporaryFolderIsRefused) {
    TempDir dir;
    const TreeSnapshot original = writePackage(dir.path(), {{"a.xml", "A"}});
    FaultyFileSystemOps ops;
    FileSystemPhysicalPackage package(dir.u16("pkg"), ops);
    package.open(OpenMode::ReadWrite);
    const std::filesystem::path temp = toUtf8(package.getTempPackageRoot());
    writeFile(temp / "x" / "y.xml", "stale");

    EXPECT_OPC_EXCEPTION(create(package, u"/x/y.xml"), "Cannot create. File already exists.", emptyCode());
    EXPECT_EQ(partNames(package), std::vector<std::u16string>{u"/a.xml"});
    // Nothing was changed, so nothing is committed.
    ops.clearCalls();
    package.close(false);
    EXPECT_EQ(ops.count(Hook::Rename), 0u);
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

TEST(Registry, CreateOfWrittenPartIsRefusedAndKeepsIt) {
    TempDir dir;
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::Create);
    IPhysicalPart* first = create(package, u"/p.xml", u"one");
    writeAll(first->getOutputStream(), "1");
    EXPECT_OPC_EXCEPTION(create(package, u"/p.xml", u"two"), "Cannot create. File already exists.", emptyCode());
    EXPECT_EQ(package.getParts(), std::vector<IPhysicalPart*>{first});
    EXPECT_EQ(first->getContentType(), u"one");
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"pkg/", ""}, {"pkg/[Content_Types].xml", ""}, {"pkg/p.xml", "1"}}));
}

TEST(Registry, InvalidPartNamesAreRefused) {
    TempDir dir;
    writePackage(dir.path(), {{"a.xml", "A"}});
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::ReadWrite);
    const TreeSnapshot opened = snapshotTree(dir.path());

    EXPECT_THROW(create(package, u""), std::out_of_range);
    for (const std::u16string& name :
         {std::u16string(u"a.xml"), std::u16string(u"/"), std::u16string(u"//a"), std::u16string(u"/a//b"),
          std::u16string(u"/a/"), std::u16string(u"/."), std::u16string(u"/.."), std::u16string(u"/./a"),
          std::u16string(u"/a/."), std::u16string(u"/a/.."), std::u16string(u"/../x"), std::u16string(u"/a/./b"),
          std::u16string(u"/a/../b"), std::u16string(u"/a\0b", 4), std::u16string(u"/a\0", 3)}) {
        SCOPED_TRACE(toUtf8(name));
        EXPECT_OPC_EXCEPTION(create(package, name), "Invalid part name", emptyCode());
    }
    EXPECT_EQ(partNames(package), std::vector<std::u16string>{u"/a.xml"});
    EXPECT_EQ(snapshotTree(dir.path()), opened);

    // Dots and spaces inside a segment are ordinary characters.
    for (const std::u16string name : {u"/.a", u"/..a", u"/a..", u"/a./b", u"/ a", u"/a b/c"}) {
        EXPECT_NO_THROW(create(package, name)) << toUtf8(name);
    }
    EXPECT_EQ(partNames(package).size(), 7u);
}

TEST(Registry, CreateTakesOverPartFoundOnDisk) {
    for (const bool write : {true, false}) {
        SCOPED_TRACE(write ? "written" : "unwritten");
        TempDir dir;
        writePackage(dir.path(), {{"a.xml", "old"}, {"b.xml", "B"}});
        FileSystemPhysicalPackage package(dir.u16("pkg"));
        package.open(OpenMode::ReadWrite);
        IPhysicalPart* found = findPart(package, u"/a.xml");
        char first = 0;
        ASSERT_EQ(found->getInputStream()->read(&first, 1), 1);

        IPhysicalPart* created = create(package, u"/a.xml", u"application/x-new");
        EXPECT_NE(created, found);
        EXPECT_EQ(openFilesBelow(dir.path() / "pkg"), 0);  // the replaced part's stream is closed
        EXPECT_EQ(partNames(package), (std::vector<std::u16string>{u"/a.xml", u"/b.xml"}));
        EXPECT_EQ(findPart(package, u"/a.xml"), created);
        EXPECT_EQ(created->getContentType(), u"application/x-new");
        EXPECT_OPC_EXCEPTION(package.deletePart(u"/a.xml"), kRefusedDelete, emptyCode());
        // Until the commit its input still reads the package folder.
        EXPECT_EQ(readAll(created->getInputStream()), "old");

        if (write) writeAll(created->getOutputStream(), "new");
        package.close(false);
        EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"pkg/", ""},
                                                           {"pkg/[Content_Types].xml", "<Types/>"},
                                                           {"pkg/a.xml", write ? "new" : ""},
                                                           {"pkg/b.xml", "B"}}));
    }
}

TEST(Registry, CreateAgainReplacesUnwrittenChangedPart) {
    TempDir dir;
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(OpenMode::Create);
    create(package, u"/x.xml", u"one");
    IPhysicalPart* second = create(package, u"/x.xml", u"two");
    EXPECT_EQ(package.getParts(), std::vector<IPhysicalPart*>{second});
    EXPECT_EQ(second->getContentType(), u"two");
    EXPECT_EQ(second->getName(), u"/x.xml");
    writeAll(second->getOutputStream(), "2");
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"pkg/", ""}, {"pkg/[Content_Types].xml", ""}, {"pkg/x.xml", "2"}}));
}

}  // namespace
}  // namespace opc::test::fspackage
