#include "support/FaultyFileSystemOps.h"
#include "support/OpcAssertions.h"
#include "support/StreamHelpers.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPart.h>
#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>
#include <boost/system/error_code.hpp>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <limits>

namespace opc::test {
namespace {

using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::IPhysicalInputStream;
using opc::interfaces::IPhysicalOutputStream;
using opc::interfaces::IPhysicalPart;
using opc::interfaces::OpenMode;
using Names = std::vector<std::u16string>;

const std::u16string kContentTypes = u"/[Content_Types].xml";
const std::string kNoPart = "Part does not exist";
const std::string kNoContentTypes = "Content types stream does not exist";
const std::string kRefused =
    "A part cannot be deleted if it has just been created or modified. Package must be closed first.";
const std::string kExists = "Cannot create. File already exists.";
const std::string kInputFailed = "Failed to create or open file system input stream";
const std::string kOutputFailed = "Failed to create or open file system output stream";

// The tree below root on one line, "folder/ file=bytes ...", in name order.
std::string tree(const std::filesystem::path& root) {
    std::string line;
    for (const auto& [name, bytes] : snapshotTree(root)) {
        line += (line.empty() ? "" : " ") + name + (name.back() == '/' ? std::string() : "=" + bytes);
    }
    return line;
}

Names partNames(FileSystemPhysicalPackage& package) {
    Names names;
    for (IPhysicalPart* part : package.getParts()) names.push_back(part->getName());
    return names;
}

IPhysicalPart* create(FileSystemPhysicalPackage& package,
                      const std::u16string& name,
                      const std::u16string& contentType = u"application/xml") {
    return package.createPart(name, contentType, opc::fspackage::FileSystemPartInfo());
}

opc::fspackage::FileSystemPart& fsPart(IPhysicalPart* part) {
    return dynamic_cast<opc::fspackage::FileSystemPart&>(*part);
}

std::string readSome(IPhysicalInputStream* stream, std::streamsize count) {
    std::string buffer(static_cast<std::size_t>(count), '\0');
    buffer.resize(static_cast<std::size_t>(stream->read(buffer.data(), count)));
    return buffer;
}

std::size_t firstCall(const FaultyFileSystemOps& ops, Hook hook) {
    const std::vector<Call>& calls = ops.calls();
    const auto found = std::find_if(calls.begin(), calls.end(), [&](const Call& call) { return call.hook == hook; });
    return static_cast<std::size_t>(found - calls.begin());
}

// A test folder, a package "pkg" in it holding "<Types/>" as content types,
// and package objects over it through the recording file system.
template <class Ops = FaultyFileSystemOps>
struct PackageFixture : ::testing::Test {
    TempDir dir;
    Ops ops;
    TreeSnapshot original;
    std::unique_ptr<FileSystemPhysicalPackage> package;

    void write(std::map<std::string, std::string> files) {
        files.emplace("[Content_Types].xml", "<Types/>");
        for (const auto& [relative, bytes] : files) writeFile(dir.path() / "pkg" / relative, bytes);
        original = snapshotTree(dir.path());
    }
    FileSystemPhysicalPackage& open(int mode, const std::string& path = "pkg") {
        package.reset();
        package = std::make_unique<FileSystemPhysicalPackage>(dir.u16(path), ops);
        if (mode != -2) package->open(static_cast<OpenMode>(mode));  // -2: left unopened
        return *package;
    }
    std::filesystem::path temp() const { return toUtf8(package->getTempPackageRoot()); }
};
using Open = PackageFixture<>;
using Parts = PackageFixture<>;

TEST_F(Open, WhatIsNoPackageIsRefusedBeforeAnyTemporaryFolder) {
    writeFile(dir.path() / "file", "not a folder");
    // Neither a nested copy nor another spelling is the content-types file.
    writeFile(dir.path() / "pkg" / "word" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "pkg" / "[content_types].xml", "<Types/>");
    const TreeSnapshot before = snapshotTree(dir.path());
    const boost::system::error_code noSuchFile(2, boost::system::generic_category());
    for (const int mode : {OpenMode::Read, OpenMode::ReadWrite}) {
        for (const std::string path : {"file", "missing", "no/such/parent/pkg", "pkg"}) {
            SCOPED_TRACE(path + " mode " + std::to_string(mode));
            EXPECT_OPC_EXCEPTION(open(mode, path), path == "pkg" ? kNoContentTypes : "Package does not exist",
                                 path == "pkg" ? emptyCode() : noSuchFile);
            EXPECT_FALSE(package->isOpen());
            EXPECT_EQ(ops.count(Hook::GetTempName) + ops.count(Hook::CreateFoldersReporting), 0u);
            EXPECT_EQ(snapshotTree(dir.path()), before);
        }
    }
}

TEST_F(Open, ReadListsAllButTopLevelTrashAndEmptyFoldersAndMakesNoTemporaryFolder) {
    write({{"[trash]/x", "1"}, {"[trash]/d/y", "2"}, {"[trash]y", "3"}, {"[Trash]/d", "4"}, {"a/[trash]/b", "5"}});
    std::filesystem::create_directories(dir.path() / "pkg" / "empty" / "y");
    original = snapshotTree(dir.path());
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto before = descriptors();
    EXPECT_TRUE(open(OpenMode::Read).getTempPackageRoot().empty());
    EXPECT_EQ(descriptors(), before);  // no folder left open by the existence tests, not even for [trash]y
    EXPECT_EQ(partNames(*package), (Names{u"/[Trash]/d", u"/a/[trash]/b"}));
    EXPECT_OPC_EXCEPTION(package->deletePart(u"/[trash]/x"), kNoPart, emptyCode());
    EXPECT_EQ(readAll(partNamed(*package, u"/a/[trash]/b")->getInputStream()), "5");
    package.reset();
    EXPECT_EQ(ops.count(Hook::GetTempName) + ops.count(Hook::CreateFoldersReporting), 0u);
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

TEST_F(Open, CreateOnMissingPathMakesHiddenTemporaryFolderBesideIt) {
    open(OpenMode::Create, "x/y/pkg");
    EXPECT_TRUE(package->isOpen());
    const std::string tempName = temp().filename();
    ASSERT_EQ(tempName.substr(0, 1), ".");
    EXPECT_EQ(tree(dir.path()), "x/ x/y/ x/y/" + tempName + "/");
    EXPECT_EQ(ops.count(Hook::GetFiles), 0u);
    EXPECT_TRUE(package->getParts().empty());
    EXPECT_EQ(package->getContentTypesPart()->getName(), kContentTypes);
    EXPECT_OPC_EXCEPTION(package->deletePart(kContentTypes), kRefused, emptyCode());
    package->close(true);
    EXPECT_EQ(tree(dir.path()), "x/ x/y/");
}

TEST_F(Open, ReadWriteMakesTemporaryFolderLastAndLaterOpensChangeNothing) {
    write({{"a.xml", "A"}, {"b/c.xml", "C"}});
    open(OpenMode::ReadWrite);
    const std::size_t makeTemp = firstCall(ops, Hook::CreateFoldersReporting);
    ASSERT_LT(makeTemp, ops.calls().size());
    EXPECT_EQ(ops.calls()[makeTemp].path, package->getTempPackageRoot());
    EXPECT_LT(firstCall(ops, Hook::GetFiles), firstCall(ops, Hook::GetTempName));
    EXPECT_LT(firstCall(ops, Hook::GetTempName), makeTemp);
    EXPECT_EQ(partNames(*package), (Names{u"/a.xml", u"/b/c.xml"}));
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{temp().filename(), "pkg"}));
    const std::vector<IPhysicalPart*> parts = package->getParts();
    const TreeSnapshot afterFirstOpen = snapshotTree(dir.path());
    const std::u16string tempRoot = package->getTempPackageRoot();
    package->open(OpenMode::Create);
    package->open(OpenMode::Read);
    EXPECT_EQ(package->getTempPackageRoot(), tempRoot);
    EXPECT_EQ(package->getParts(), parts);
    EXPECT_EQ(snapshotTree(dir.path()), afterFirstOpen);
    // Registered as an unchanged part, the content-types part can be deleted.
    EXPECT_EQ(package->getContentTypesPart()->getName(), kContentTypes);
    ASSERT_NO_THROW(package->deletePart(kContentTypes));
    EXPECT_OPC_EXCEPTION(package->getParts(), kNoContentTypes, emptyCode());
    EXPECT_OPC_EXCEPTION(package->getContentTypeInputStream(), kNoContentTypes, emptyCode());
    EXPECT_OPC_EXCEPTION(package->getContentTypeOutputStream(), kNoContentTypes, emptyCode());
    EXPECT_OPC_EXCEPTION(package->getContentTypesPart(), kNoContentTypes, emptyCode());
    EXPECT_OPC_EXCEPTION(package->deletePart(kContentTypes), kNoPart, emptyCode());
    // ReadWrite still decides the close: Read commits nothing, Create drops unchanged parts.
    writeAll(create(*package, u"/new.xml")->getOutputStream(), "N");
    package->close(false);
    EXPECT_EQ(tree(dir.path()), "pkg/ pkg/a.xml=A pkg/b/ pkg/b/c.xml=C pkg/new.xml=N");
}

TEST_F(Open, OtherModeValuesOnlyMarkOpen) {
    write({{"a.xml", "A"}});
    for (const int mode : {3, -1, 4, std::numeric_limits<int>::max()}) {
        SCOPED_TRACE(mode);
        EXPECT_TRUE(open(-2).hasContentTypeStream());
        ops.clearCalls();
        package->open(static_cast<OpenMode>(mode));
        EXPECT_TRUE(package->isOpen());
        EXPECT_OPC_EXCEPTION(package->getParts(), kNoContentTypes, emptyCode());
        package->close(false);
        EXPECT_TRUE(ops.calls().empty());
        EXPECT_EQ(snapshotTree(dir.path()), original);
    }
}

TEST_F(Open, TemporaryFolderFailureCarriesItsCodeAndDestructorRemovesFolder) {
    write({{"a.xml", "A"}});
    // The folder comes into being, yet the call reports a failure.
    ops.setBeforeCall([](const Call& call) {
        if (call.hook == Hook::CreateFoldersReporting) std::filesystem::create_directories(toUtf8(call.path));
    });
    const boost::system::error_code code = FaultyFileSystemOps::injectedCode(ENOSPC);
    for (const int mode : {OpenMode::Create, OpenMode::ReadWrite}) {
        SCOPED_TRACE(mode);
        ops.clearCalls();
        ops.failCall(Hook::CreateFoldersReporting, 1, ENOSPC);
        EXPECT_OPC_EXCEPTION(open(mode), "Could not create temporary directory structure for output: " + code.message(),
                             code);
        EXPECT_FALSE(package->isOpen());
        EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{temp().filename(), "pkg"}));
        package.reset();
        EXPECT_EQ(snapshotTree(dir.path()), original);
    }
}

// Lists the given paths below the folder, in this order, whatever is on disk.
struct ScriptedListingOps : FaultyFileSystemOps {
    std::vector<std::string> listing;
    void getFilesImpl(const std::u16string& folder, std::vector<std::u16string>& files, bool recursive) override {
        FaultyFileSystemOps::getFilesImpl(folder, files, recursive);
        files.clear();
        for (const std::string& relative : listing) files.push_back(folder + u"/" + fromUtf8(relative));
    }
};
using ScriptedOpen = PackageFixture<ScriptedListingOps>;

// Parts are made in the listing's order and registered in name order, code
// unit by code unit; a name listed twice counts once. When one cannot be made,
// those made before it stay registered until the next open starts afresh.
TEST_F(ScriptedOpen, PartsRegisteredInCodeUnitOrderAndKeptUntilNextOpen) {
    // U+1F600 is the surrogate pair D83D DE00, below the one unit U+FF21; "." is below "/".
    write({{"b", "B"}, {"a/b", ""}, {"a.b", ""}, {"\xf0\x9f\x98\x80", ""}, {"\xef\xbc\xa1", ""}, {"c", ""}});
    ops.listing = {"b", "[Content_Types].xml", "\xef\xbc\xa1", "a/b", "\xf0\x9f\x98\x80", "b", "a.b", "missing", "c"};
    EXPECT_OPC_EXCEPTION(open(OpenMode::Read), "Cannot read. File does not exist.", emptyCode());
    const std::u16string folder = dir.u16("pkg") + u"/";
    std::vector<std::string> tested;
    for (const Call& call : ops.calls()) {
        if (call.hook == Hook::Exists && call.path.rfind(folder, 0) == 0)
            tested.push_back(toUtf8(call.path.substr(folder.size())));
    }
    EXPECT_EQ(tested, std::vector<std::string>(ops.listing.begin(), ops.listing.end() - 1));
    EXPECT_EQ(partNames(*package), (Names{u"/a.b", u"/a/b", u"/b", u"/\U0001F600", u"/\uFF21"}));
    EXPECT_OPC_EXCEPTION(package->deletePart(u"/c"), kNoPart, emptyCode());

    ops.listing = {"c", "[Content_Types].xml", "b"};
    package->open(OpenMode::Read);
    EXPECT_EQ(partNames(*package), (Names{u"/b", u"/c"}));
    EXPECT_EQ(readAll(partNamed(*package, u"/b")->getInputStream()), "B");
}

TEST_F(Parts, DeletePartDropsOnlyUnchangedPartsAndOnlyFromMemory) {
    write({{"a.xml", "A"}, {"b.xml", "B"}, {"c.xml", "C"}});
    const TreeSnapshot packageFolder = snapshotTree(dir.path() / "pkg");
    open(OpenMode::ReadWrite);
    create(*package, u"/new.xml");
    partNamed(*package, u"/b.xml")->getOutputStream();
    package->deletePart(u"/a.xml");
    EXPECT_EQ(partNames(*package), (Names{u"/b.xml", u"/new.xml", u"/c.xml"}));
    for (const std::u16string name : {u"/a.xml", u"/never.xml", u"c.xml"}) {
        EXPECT_OPC_EXCEPTION(package->deletePart(name), kNoPart, emptyCode()) << toUtf8(name);
    }
    EXPECT_OPC_EXCEPTION(package->deletePart(u"/new.xml"), kRefused, emptyCode());
    EXPECT_OPC_EXCEPTION(package->deletePart(u"/b.xml"), kRefused, emptyCode());
    EXPECT_EQ(snapshotTree(dir.path() / "pkg"), packageFolder);
    package->close(true);
    EXPECT_EQ(snapshotTree(dir.path()), original);
}

TEST_F(Parts, CreatePartRefusesInvalidNamesAndExistingFiles) {
    write({{"a.xml", "A"}});
    open(OpenMode::ReadWrite);
    EXPECT_THROW(create(*package, u""), std::out_of_range);
    for (const std::u16string name :
         {u"a.xml", u"/", u"//a", u"/a//b", u"/a/", u"/.", u"/..", u"/./a", u"/a/..", u"/a/./b"})
        EXPECT_OPC_EXCEPTION(create(*package, name), "Invalid part name", emptyCode()) << toUtf8(name);
    EXPECT_OPC_EXCEPTION(create(*package, std::u16string(u"/a\0b", 4)), "Invalid part name", emptyCode());
    writeFile(temp() / "x" / "y.xml", "stale");
    EXPECT_OPC_EXCEPTION(create(*package, u"/x/y.xml"), kExists, emptyCode());
    IPhysicalPart* written = create(*package, u"/p.xml", u"one");
    writeAll(written->getOutputStream(), "1");
    EXPECT_OPC_EXCEPTION(create(*package, u"/p.xml", u"two"), kExists, emptyCode());
    EXPECT_EQ(partNamed(*package, u"/p.xml"), written);
    EXPECT_EQ(written->getContentType(), u"one");
    // Dots and spaces inside a segment are ordinary characters.
    for (const std::u16string name : {u"/.a", u"/..a", u"/a..", u"/a./b", u"/a b/c"}) create(*package, name);
    EXPECT_EQ(partNames(*package), (Names{u"/..a", u"/.a", u"/a b/c", u"/a..", u"/a./b", u"/p.xml", u"/a.xml"}));
}

TEST_F(Parts, CreateTakesOverPartOfSameName) {
    for (const bool write : {true, false}) {
        SCOPED_TRACE(write);
        this->write({{"a.xml", "old"}, {"b.xml", "B"}});
        open(OpenMode::ReadWrite);
        create(*package, u"/a.xml", u"first");  // an unwritten created part is replaced too
        IPhysicalPart* created = create(*package, u"/a.xml", u"application/x-new");
        EXPECT_EQ(package->getParts(), (std::vector<IPhysicalPart*>{created, partNamed(*package, u"/b.xml")}));
        EXPECT_EQ(created->getContentType(), u"application/x-new");
        EXPECT_OPC_EXCEPTION(package->deletePart(u"/a.xml"), kRefused, emptyCode());
        // Until the commit its input still reads the package folder.
        EXPECT_EQ(readAll(created->getInputStream()), "old");
        if (write) writeAll(created->getOutputStream(), "new");
        package->close(false);
        EXPECT_EQ(tree(dir.path()), std::string("pkg/ pkg/[Content_Types].xml=<Types/> pkg/a.xml=") +
                                        (write ? "new" : "") + " pkg/b.xml=B");
    }
}

// A failed request drops the service's code and keeps no stream, so the
// next one tries afresh.
TEST_F(Parts, InputKeepsItsPlaceUntilClosedThenRestartsAtFirstByte) {
    write({{"a.bin", "0123456789"}});
    IPhysicalPart* part = partNamed(open(OpenMode::Read), u"/a.bin");
    ops.failCall(Hook::CreateInputStream, 1, EACCES);
    EXPECT_OPC_EXCEPTION(part->getInputStream(), kInputFailed, emptyCode());
    IPhysicalInputStream* stream = part->getInputStream();
    EXPECT_EQ(readSome(stream, 3), "012");
    EXPECT_EQ(part->getInputStream(), stream);
    stream->open();  // already open
    EXPECT_FALSE(stream->isAtEnd());
    EXPECT_EQ(readSome(stream, 100), "3456789");
    EXPECT_TRUE(stream->isAtEnd());
    EXPECT_EQ(readSome(stream, 100), "");
    EXPECT_EQ(part->getInputStream(), stream);  // the end is no invalid state
    EXPECT_EQ(ops.count(Hook::CreateInputStream), 2u);
    stream->close();
    EXPECT_TRUE(stream->isAtEnd());
    stream->open();
    EXPECT_EQ(readSome(stream, 10), "0123456789");
    EXPECT_FALSE(stream->isAtEnd());  // reading exactly up to the end has not met it yet
    stream->close();
    std::filesystem::remove(dir.path() / "pkg" / "a.bin");
    EXPECT_OPC_EXCEPTION(stream->open(), kInputFailed, emptyCode());
    EXPECT_TRUE(stream->isAtEnd());
}

TEST_F(Parts, WritesAreNotReadBackAndAfterCloseFailUntilStreamsAreClosed) {
    write({{"a.xml", "old"}});
    IPhysicalPart* part = partNamed(open(OpenMode::ReadWrite), u"/a.xml");
    IPhysicalOutputStream* out = part->getOutputStream();
    EXPECT_FALSE(out->isFailed());
    EXPECT_EQ(writeAll(out, "abc"), 3);
    out->flush();
    EXPECT_EQ(readFile(temp() / "a.xml"), "abc");
    EXPECT_EQ(readAll(part->getInputStream()), "old");  // reads the package folder, not uncommitted writes
    out->close();
    EXPECT_TRUE(out->isFailed());
    EXPECT_EQ(writeAll(out, "x"), 0);
    EXPECT_EQ(part->getOutputStream(), out);
    EXPECT_EQ(readFile(temp() / "a.xml"), "abc");
    fsPart(part).closeStreams();
    EXPECT_FALSE(part->getOutputStream()->isFailed());
    EXPECT_EQ(readFile(temp() / "a.xml"), "");
    package->close(false);
    EXPECT_EQ(readFile(dir.path() / "pkg" / "a.xml"), "");
}

// A failed first request still moves the part to the changed ones (listed
// first, not to be deleted) but leaves it unwritten.
TEST_F(Parts, FailedFirstRequestMovesPartToChangedAndLeavesItUnwritten) {
    write({{"a.xml", "A"}, {"word/media/x.bin", "X"}});
    const boost::system::error_code code = FaultyFileSystemOps::injectedCode(ENOSPC);
    const std::string folderFailed = "Could not create directory structure for part output stream: " + code.message();
    // Calls by number: 1 appendPath, 2 getParentPath, 3 exists, 4 createFolders, 5 createOutputStream.
    for (const auto& [failing, message] : std::vector<std::pair<std::size_t, std::string>>{
             {2, folderFailed}, {3, folderFailed}, {4, folderFailed}, {5, kOutputFailed}}) {
        SCOPED_TRACE(failing);
        IPhysicalPart* part = partNamed(open(OpenMode::ReadWrite), u"/word/media/x.bin");
        ops.clearCalls();
        ops.failGlobalCall(failing, ENOSPC);
        EXPECT_OPC_EXCEPTION(part->getOutputStream(), message, failing == 5 ? emptyCode() : code);
        EXPECT_EQ(ops.calls().size(), failing);
        EXPECT_TRUE(fsPart(part).isUnwritten());
        EXPECT_EQ(partNames(*package), (Names{u"/word/media/x.bin", u"/a.xml"}));
        EXPECT_OPC_EXCEPTION(package->deletePart(u"/word/media/x.bin"), kRefused, emptyCode());
        EXPECT_EQ(tree(temp()), failing == 5 ? "word/ word/media/" : "");
        ops.clearFailures();
    }
    IPhysicalPart* part = partNamed(*package, u"/word/media/x.bin");
    IPhysicalOutputStream* out = part->getOutputStream();
    EXPECT_FALSE(fsPart(part).isUnwritten());
    EXPECT_EQ(tree(temp()), "word/ word/media/ word/media/x.bin=");
    ops.clearCalls();
    EXPECT_EQ(part->getOutputStream(), out);
    EXPECT_TRUE(ops.calls().empty());
}

// Refused before any call, folder, flag or map change: a modified flag would
// show as a commit of the next open, which drops the empty folder. A request
// for the content-types output marks the package even when it fails.
TEST_F(Parts, OutputRefusedWithoutTemporaryFolderChangesNothing) {
    write({{"a.xml", "A"}, {"b.xml", "B"}});
    std::filesystem::create_directories(dir.path() / "pkg" / "empty");
    original = snapshotTree(dir.path());
    // Staged paths would lie at the file-system root or in a folder never made.
    for (const Hook hook : {Hook::CreateFolders, Hook::CreateFoldersReporting, Hook::CreateOutputStream})
        ops.failCalls(hook, 1, ~std::size_t{0});
    const boost::system::error_code io = FaultyFileSystemOps::injectedCode(EIO);
    // Never opened, Read, a mode that stages nothing, ReadWrite whose temporary folder could not be made.
    for (const int mode : {-2, 0, 3, 2}) {
        SCOPED_TRACE(mode);
        if (mode == OpenMode::ReadWrite) {
            EXPECT_OPC_EXCEPTION(open(mode),
                                 "Could not create temporary directory structure for output: " + io.message(), io);
            EXPECT_FALSE(package->getTempPackageRoot().empty());
        } else {
            open(mode);
        }
        const bool found = mode == OpenMode::Read || mode == OpenMode::ReadWrite;
        IPhysicalPart* part = found ? partNamed(*package, u"/b.xml") : create(*package, u"/b.xml");
        ops.clearCalls();
        EXPECT_OPC_EXCEPTION(part->getOutputStream(), kOutputFailed, emptyCode());
        EXPECT_TRUE(ops.calls().empty());
        EXPECT_TRUE(fsPart(part).isUnwritten());
        if (found) {
            EXPECT_EQ(partNames(*package), (Names{u"/a.xml", u"/b.xml"}));
        }
        EXPECT_EQ(snapshotTree(dir.path()), original);
    }
    ops.clearFailures();
    package->open(OpenMode::ReadWrite);
    package->close(false);
    EXPECT_EQ(ops.count(Hook::Rename), 0u);
    EXPECT_EQ(snapshotTree(dir.path()), original);

    EXPECT_OPC_EXCEPTION(package->getContentTypeOutputStream(), kNoContentTypes, emptyCode());
    package->open(OpenMode::ReadWrite);
    package->close(false);
    EXPECT_EQ(tree(dir.path()), "pkg/ pkg/[Content_Types].xml=<Types/> pkg/a.xml=A pkg/b.xml=B");
}

TEST_F(Parts, APartSwappedForALinkIsNeitherReadNorCopied) {
    write({{"a.xml", "A"}, {"b.xml", "B"}});
    writeFile(dir.path() / "secret", "outside");
    open(OpenMode::ReadWrite);
    std::filesystem::remove(dir.path() / "pkg" / "a.xml");
    std::filesystem::create_symlink(dir.path() / "secret", dir.path() / "pkg" / "a.xml");
    const TreeSnapshot before = snapshotTree(dir.path() / "pkg");
    EXPECT_OPC_EXCEPTION(partNamed(*package, u"/a.xml")->getInputStream(), kInputFailed, emptyCode());
    writeAll(partNamed(*package, u"/b.xml")->getOutputStream(), "B2");
    EXPECT_OPC_EXCEPTION(package->close(false),
                         "Could not copy original part to destination package: " + std::string(std::strerror(ELOOP)),
                         systemCode(ELOOP));
    EXPECT_EQ(snapshotTree(dir.path() / "pkg"), before);
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{"pkg", "secret"}));
}

// Hands out input streams that are bad from the start and output streams
// over no file, which turn bad at the first write.
struct BadStreamOps : FaultyFileSystemOps {
    using Code = boost::system::error_code;
    using Mode = std::ios_base::openmode;
    std::shared_ptr<std::istream> createInputStreamImpl(const std::u16string&, Mode, Code&) noexcept override {
        return std::make_shared<std::istream>(nullptr);
    }
    std::shared_ptr<std::ostream> createOutputStreamImpl(const std::u16string&, Mode, Code&) noexcept override {
        return std::make_shared<std::ofstream>();
    }
};
using BadStreams = PackageFixture<BadStreamOps>;

TEST_F(BadStreams, AreReportedAsInvalidState) {
    write({{"a.bin", "A"}});
    IPhysicalPart* part = partNamed(open(OpenMode::ReadWrite), u"/a.bin");
    EXPECT_OPC_EXCEPTION(part->getInputStream(), "Input stream is in an invalid state", emptyCode());
    IPhysicalOutputStream* out = part->getOutputStream();
    EXPECT_EQ(writeAll(out, "abc"), 3);  // the failure shows afterwards
    EXPECT_TRUE(out->isFailed());
    EXPECT_EQ(writeAll(out, "abc"), 0);
    EXPECT_OPC_EXCEPTION(part->getOutputStream(), "Output stream is in an invalid state", emptyCode());
}

// A lost, repeated or reordered piece shows: each piece has its own bytes.
TEST_F(Parts, HundredMebibytePartRoundTripsInPieces) {
    constexpr std::size_t kPiece = 64 * 1024, kPieces = 1600;
    IPhysicalOutputStream* out = create(open(OpenMode::Create), u"/big.bin")->getOutputStream();
    for (std::uint32_t i = 0; i < kPieces; ++i) out->write(noise(kPiece, i).data(), kPiece);
    EXPECT_FALSE(out->isFailed());
    package->close(false);
    IPhysicalInputStream* in = partNamed(open(OpenMode::Read), u"/big.bin")->getInputStream();
    std::string piece(kPiece, '\0');
    std::uint32_t i = 0;
    while (i < kPieces && in->read(piece.data(), kPiece) == std::streamsize{kPiece} && piece == noise(kPiece, i)) ++i;
    EXPECT_EQ(i, kPieces) << "first bad piece";
    EXPECT_EQ(in->read(piece.data(), 1), 0);
    EXPECT_TRUE(in->isAtEnd());
}

}  // namespace
}  // namespace opc::test
