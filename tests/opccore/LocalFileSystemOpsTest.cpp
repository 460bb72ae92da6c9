#include <opccore/LocalFileSystemOps.h>

#include "support/OpcAssertions.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using opc::test::emptyCode;
using opc::test::fromUtf8;
using opc::test::readFile;
using opc::test::snapshotTree;
using opc::test::systemCode;
using opc::test::TempDir;
using opc::test::toUtf8;
using opc::test::writeFile;

const auto kIn = std::ios_base::in | std::ios_base::binary;
const auto kOut = std::ios_base::out | std::ios_base::binary;

// Every byte value, repeated, so that a translated or dropped byte shows.
std::string allByteValues(std::size_t repeats) {
    std::string bytes;
    for (std::size_t r = 0; r < repeats; ++r) {
        for (int b = 0; b < 256; ++b) bytes.push_back(static_cast<char>(b));
    }
    return bytes;
}

std::vector<std::string> listed(opc::LocalFileSystemOps& ops, const std::u16string& folder, bool recursive) {
    std::vector<std::u16string> files;
    ops.getFiles(folder, files, recursive);
    std::vector<std::string> names;
    for (const std::u16string& file : files) names.push_back(toUtf8(file));
    std::sort(names.begin(), names.end());
    return names;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// ---- getFiles ------------------------------------------------------------------

class GetFiles : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", "types");
        writeFile(dir.path() / "pkg" / "_rels" / ".rels", "rels");
        writeFile(dir.path() / "pkg" / "word" / "document.xml", "doc");
        writeFile(dir.path() / "pkg" / "word" / "media" / "deep" / "image1.png", "png");
        writeFile(dir.path() / "pkg" / ".hidden", "h");
        fs::create_directories(dir.path() / "pkg" / "empty" / "emptier");
        root = toUtf8(dir.u16("pkg"));
    }

    TempDir dir;
    std::string root;
    opc::LocalFileSystemOps ops;
};

TEST_F(GetFiles, ListsEveryFileAtAnyDepthSpelledFolderSlashRelative) {
    const std::vector<std::string> expected = {root + "/.hidden", root + "/[Content_Types].xml",
                                               root + "/_rels/.rels", root + "/word/document.xml",
                                               root + "/word/media/deep/image1.png"};
    EXPECT_EQ(listed(ops, dir.u16("pkg"), true), expected);
}

TEST_F(GetFiles, AppendsToWhatTheListAlreadyHolds) {
    std::vector<std::u16string> files = {u"kept"};
    ops.getFiles(dir.u16("pkg/_rels"), files, true);
    EXPECT_EQ(files, (std::vector<std::u16string>{u"kept", dir.u16("pkg") + u"/_rels/.rels"}));
}

TEST_F(GetFiles, NonRecursiveListsOnlyTheTopLevel) {
    EXPECT_EQ(listed(ops, dir.u16("pkg"), false),
              (std::vector<std::string>{root + "/.hidden", root + "/[Content_Types].xml"}));
}

TEST_F(GetFiles, FolderHoldingOnlyEmptyFoldersYieldsNothing) {
    EXPECT_TRUE(listed(ops, dir.u16("pkg/empty"), true).empty());
    EXPECT_TRUE(listed(ops, dir.u16("pkg/empty/emptier"), false).empty());
}

TEST_F(GetFiles, KeepsTheFolderSpellingAsPassed) {
    // The part names of a package are cut from these entries, so the prefix
    // must be exactly what the caller passed, not a canonical form of it.
    const std::u16string spelled = dir.u16() + u"//pkg/./word";
    std::vector<std::u16string> files;
    ops.getFiles(spelled, files, true);
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, (std::vector<std::u16string>{spelled + u"/document.xml", spelled + u"/media/deep/image1.png"}));
}

TEST_F(GetFiles, ListsALinkToAFile) {
    fs::create_symlink(dir.path() / "pkg" / "word" / "document.xml", dir.path() / "pkg" / "alias.xml");
    const auto names = listed(ops, dir.u16("pkg"), true);
    EXPECT_EQ(std::count(names.begin(), names.end(), root + "/alias.xml"), 1);
    EXPECT_EQ(names.size(), 6u);
}

TEST_F(GetFiles, LinkCycleToAnAncestorIsNeitherEnteredNorListed) {
    fs::create_directory_symlink("..", dir.path() / "pkg" / "word" / "up");
    fs::create_directory_symlink(dir.path() / "pkg", dir.path() / "pkg" / "word" / "media" / "root");
    const std::vector<std::string> expected = {root + "/.hidden", root + "/[Content_Types].xml",
                                               root + "/_rels/.rels", root + "/word/document.xml",
                                               root + "/word/media/deep/image1.png"};
    EXPECT_EQ(listed(ops, dir.u16("pkg"), true), expected);
}

TEST_F(GetFiles, LinkToAFolderOutsideIsNotEntered) {
    writeFile(dir.path() / "outside" / "foreign.xml", "foreign");
    fs::create_directory_symlink(dir.path() / "outside", dir.path() / "pkg" / "out");
    const auto names = listed(ops, dir.u16("pkg"), true);
    EXPECT_EQ(names.size(), 5u);
    EXPECT_TRUE(std::none_of(names.begin(), names.end(), [](const std::string& n) { return contains(n, "foreign"); }));
}

TEST_F(GetFiles, MissingFolderThrowsNoSuchFileNamingTheFolder) {
    const std::u16string missing = dir.u16("pkg/missing");
    std::vector<std::u16string> files;
    try {
        ops.getFiles(missing, files, true);
        FAIL() << "listing a missing folder succeeded";
    } catch (const opc::Exception& e) {
        EXPECT_EQ(e.code(), systemCode(ENOENT));
        EXPECT_TRUE(contains(e.what(), toUtf8(missing))) << e.what();
    }
    EXPECT_TRUE(files.empty());
}

TEST_F(GetFiles, FileInsteadOfFolderThrowsNotADirectory) {
    std::vector<std::u16string> files;
    try {
        ops.getFiles(dir.u16("pkg/.hidden"), files, false);
        FAIL() << "listing a file succeeded";
    } catch (const opc::Exception& e) {
        EXPECT_EQ(e.code(), systemCode(ENOTDIR));
    }
}

// ---- exists, isFolder ----------------------------------------------------------

TEST(ExistsAndIsFolder, TellFilesFoldersLinksAndMissingApart) {
    TempDir dir;
    writeFile(dir.path() / "file", "f");
    fs::create_directories(dir.path() / "folder");
    fs::create_directory_symlink(dir.path() / "folder", dir.path() / "folderLink");
    fs::create_symlink(dir.path() / "file", dir.path() / "fileLink");
    opc::LocalFileSystemOps ops;

    EXPECT_TRUE(ops.exists(dir.u16("file")));
    EXPECT_FALSE(ops.isFolder(dir.u16("file")));
    EXPECT_TRUE(ops.exists(dir.u16("folder")));
    EXPECT_TRUE(ops.isFolder(dir.u16("folder")));
    EXPECT_TRUE(ops.exists(dir.u16("folderLink")));
    EXPECT_TRUE(ops.isFolder(dir.u16("folderLink")));
    EXPECT_TRUE(ops.exists(dir.u16("fileLink")));
    EXPECT_FALSE(ops.isFolder(dir.u16("fileLink")));
    EXPECT_FALSE(ops.exists(dir.u16("missing")));
    EXPECT_FALSE(ops.isFolder(dir.u16("missing")));
    EXPECT_FALSE(ops.exists(dir.u16("file/below")));
    EXPECT_FALSE(ops.isFolder(dir.u16("file/below")));
}

// ---- getTempName ---------------------------------------------------------------

TEST(GetTempName, HiddenFreshNameInsideTheFolder) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    const std::u16string name = ops.getTempName(dir.u16());
    EXPECT_EQ(ops.getParentPath(name), dir.u16());
    const std::u16string last = name.substr(dir.u16().size() + 1);
    EXPECT_EQ(last.rfind(u".opc-", 0), 0u) << toUtf8(last);
    EXPECT_GT(last.size(), 5u);
    EXPECT_EQ(last.find(u'/'), std::u16string::npos);
    EXPECT_FALSE(ops.exists(name));
    EXPECT_TRUE(opc::test::listFolder(dir.path()).empty()) << "getTempName made an entry";
}

TEST(GetTempName, NamesInUseAreNeverHandedOutAgain) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    std::set<std::u16string> seen;
    for (int i = 0; i < 200; ++i) {
        const std::u16string name = ops.getTempName(dir.u16());
        ASSERT_FALSE(ops.exists(name));
        ASSERT_TRUE(seen.insert(name).second) << "repeated " << toUtf8(name);
        // The caller makes the entry, as the package does.
        ops.createFolders(name);
    }
    EXPECT_EQ(opc::test::listFolder(dir.path()).size(), 200u);
}

TEST(GetTempName, WorksForAFolderThatDoesNotExistYet) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    const std::u16string folder = dir.u16("not/yet/there");
    const std::u16string name = ops.getTempName(folder);
    EXPECT_EQ(ops.getParentPath(name), folder);
    EXPECT_FALSE(ops.exists(folder));
    ops.createFolders(name);
    EXPECT_TRUE(ops.isFolder(name));
}

TEST(GetTempName, UnusableFolderThrowsNamingIt) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    const std::u16string folder = dir.u16(std::string(300, 'n'));
    try {
        ops.getTempName(folder);
        FAIL() << "a name was made in a folder whose name is too long";
    } catch (const opc::Exception& e) {
        EXPECT_EQ(e.code(), systemCode(ENAMETOOLONG));
        EXPECT_TRUE(contains(e.what(), toUtf8(folder))) << e.what();
    }
}

// ---- createFolders -------------------------------------------------------------

TEST(CreateFolders, MakesEveryMissingLevel) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    ops.createFolders(dir.u16("a/b/c"));
    boost::system::error_code code;
    ops.createFolders(dir.u16("x/y/z"), code);
    EXPECT_FALSE(code) << code.message();
    EXPECT_EQ(snapshotTree(dir.path()), (opc::test::TreeSnapshot{{"a/", ""},
                                                                  {"a/b/", ""},
                                                                  {"a/b/c/", ""},
                                                                  {"x/", ""},
                                                                  {"x/y/", ""},
                                                                  {"x/y/z/", ""}}));
}

TEST(CreateFolders, ExistingFolderSucceedsInBothForms) {
    TempDir dir;
    writeFile(dir.path() / "a" / "b" / "keep", "k");
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    EXPECT_NO_THROW(ops.createFolders(dir.u16("a/b")));
    boost::system::error_code code;
    ops.createFolders(dir.u16("a/b"), code);
    EXPECT_FALSE(code) << code.message();
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(CreateFolders, PathBelowAFileFailsInBothForms) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    for (const std::string relative : {"file/sub", "file/sub/deeper"}) {
        const std::u16string path = dir.u16(relative);
        try {
            ops.createFolders(path);
            ADD_FAILURE() << "created " << relative;
        } catch (const opc::Exception& e) {
            EXPECT_TRUE(e.code() == systemCode(ENOTDIR) || e.code() == systemCode(EEXIST)) << e.code().message();
            EXPECT_TRUE(contains(e.what(), toUtf8(path))) << e.what();
        }
        boost::system::error_code code;
        EXPECT_NO_THROW(ops.createFolders(path, code));
        EXPECT_TRUE(code == systemCode(ENOTDIR) || code == systemCode(EEXIST)) << relative << ": " << code.message();
    }
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(CreateFolders, PathThatIsAFileFailsWithFileExists) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    ops.createFolders(dir.u16("file"), code);
    EXPECT_EQ(code, systemCode(EEXIST));
    EXPECT_EQ(readFile(dir.path() / "file"), "content");
}

TEST(CreateFolders, FolderLinkCountsAsAFolder) {
    TempDir dir;
    fs::create_directories(dir.path() / "real");
    fs::create_directory_symlink(dir.path() / "real", dir.path() / "link");
    opc::LocalFileSystemOps ops;
    ops.createFolders(dir.u16("link/new/inner"));
    EXPECT_TRUE(fs::is_directory(dir.path() / "real" / "new" / "inner"));
}

// ---- Streams -------------------------------------------------------------------

TEST(InputStream, MissingFileReportsNoSuchFileAndReturnsNothing) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    std::shared_ptr<std::istream> in;
    EXPECT_NO_THROW(in = ops.createInputStream(dir.u16("missing.xml"), kIn, code));
    EXPECT_EQ(in, nullptr);
    EXPECT_EQ(code, systemCode(ENOENT));
    EXPECT_FALSE(fs::exists(dir.path() / "missing.xml"));
}

TEST(InputStream, FolderReportsIsADirectory) {
    TempDir dir;
    fs::create_directories(dir.path() / "folder");
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    EXPECT_EQ(ops.createInputStream(dir.u16("folder"), kIn, code), nullptr);
    EXPECT_EQ(code, systemCode(EISDIR));
}

TEST(InputStream, ReadsTheExactBytesOfTheFile) {
    TempDir dir;
    const std::string content = allByteValues(300);  // larger than any stream buffer
    writeFile(dir.path() / "bytes.bin", content);
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    const auto in = ops.createInputStream(dir.u16("bytes.bin"), kIn, code);
    ASSERT_FALSE(code) << code.message();
    ASSERT_NE(in, nullptr);
    std::string read;
    char piece[997];
    while (in->read(piece, sizeof piece) || in->gcount() > 0) read.append(piece, static_cast<std::size_t>(in->gcount()));
    EXPECT_TRUE(in->eof());
    EXPECT_EQ(read.size(), content.size());
    EXPECT_TRUE(read == content) << "bytes differ";
}

TEST(InputStream, EmptyFileIsAtEndAtOnce) {
    TempDir dir;
    writeFile(dir.path() / "empty", "");
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    const auto in = ops.createInputStream(dir.u16("empty"), kIn, code);
    ASSERT_NE(in, nullptr);
    char c = 0;
    EXPECT_FALSE(in->read(&c, 1));
    EXPECT_EQ(in->gcount(), 0);
}

TEST(InputStream, ModeWithoutInIsInvalidAndTouchesNothing) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    opc::LocalFileSystemOps ops;
    for (const auto mode : {std::ios_base::binary, kOut, std::ios_base::out | std::ios_base::trunc}) {
        boost::system::error_code code;
        EXPECT_EQ(ops.createInputStream(dir.u16("file"), mode, code), nullptr);
        EXPECT_EQ(code, systemCode(EINVAL));
    }
    EXPECT_EQ(readFile(dir.path() / "file"), "content");
}

TEST(OutputStream, EmptiesAnExistingFileOnOpening) {
    TempDir dir;
    writeFile(dir.path() / "part.xml", "a long old content that must not survive");
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    auto out = ops.createOutputStream(dir.u16("part.xml"), kOut, code);
    ASSERT_FALSE(code) << code.message();
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(fs::file_size(dir.path() / "part.xml"), 0u);
    *out << "new";
    out.reset();
    EXPECT_EQ(readFile(dir.path() / "part.xml"), "new");
}

TEST(OutputStream, CreatesAMissingFileWithTheExactBytes) {
    TempDir dir;
    const std::string content = allByteValues(1000);
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    auto out = ops.createOutputStream(dir.u16("new.bin"), kOut, code);
    ASSERT_FALSE(code) << code.message();
    ASSERT_NE(out, nullptr);
    EXPECT_TRUE(fs::is_regular_file(dir.path() / "new.bin"));
    // Small and large writes mixed, as a part's writer does.
    out->write(content.data(), 3);
    out->write(content.data() + 3, 100000);
    out->write(content.data() + 100003, static_cast<std::streamsize>(content.size() - 100003));
    EXPECT_TRUE(out->good());
    out.reset();
    EXPECT_TRUE(readFile(dir.path() / "new.bin") == content) << "bytes differ";
}

TEST(OutputStream, LastReleaseFlushesToDisk) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    auto out = ops.createOutputStream(dir.u16("small"), kOut, code);
    ASSERT_NE(out, nullptr);
    auto second = out;
    *out << "buffered";
    out.reset();
    second->write("!", 1);
    second.reset();
    EXPECT_EQ(readFile(dir.path() / "small"), "buffered!");
}

TEST(OutputStream, MissingFolderIsReportedAndNotCreated) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    std::shared_ptr<std::ostream> out;
    EXPECT_NO_THROW(out = ops.createOutputStream(dir.u16("missing/part.xml"), kOut, code));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(code, systemCode(ENOENT));
    EXPECT_TRUE(opc::test::listFolder(dir.path()).empty());
}

TEST(OutputStream, FolderIsReportedAndKept) {
    TempDir dir;
    writeFile(dir.path() / "folder" / "inner", "i");
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    EXPECT_EQ(ops.createOutputStream(dir.u16("folder"), kOut, code), nullptr);
    EXPECT_EQ(code, systemCode(EISDIR));
    EXPECT_EQ(readFile(dir.path() / "folder" / "inner"), "i");
}

TEST(OutputStream, ModeWithoutOutOrAppIsInvalid) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    EXPECT_EQ(ops.createOutputStream(dir.u16("file"), kIn, code), nullptr);
    EXPECT_EQ(code, systemCode(EINVAL));
    EXPECT_EQ(readFile(dir.path() / "file"), "content");
}

TEST(ReportingForms, LeaveTheCodeUntouchedOnSuccess) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    ops.createFolders(dir.u16("made"), code);
    EXPECT_EQ(code, emptyCode());
    EXPECT_NE(ops.createInputStream(dir.u16("file"), kIn, code), nullptr);
    EXPECT_EQ(code, emptyCode());
    EXPECT_NE(ops.createOutputStream(dir.u16("made/out"), kOut, code), nullptr);
    EXPECT_EQ(code, emptyCode());
    ops.removeAll(dir.u16("made"), code);
    EXPECT_EQ(code, emptyCode());
}

// ---- Messages ------------------------------------------------------------------

// The throwing forms name the operation and every path; the code's text is the
// operating system's own wording for the errno.
TEST(Messages, NameOperationAndPathsAndUseTheSystemWording) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    opc::LocalFileSystemOps ops;
    const std::u16string missing = dir.u16("missing");
    const std::u16string target = dir.u16("target");
    const std::u16string tooLong = dir.u16(std::string(300, 'n'));

    struct Case {
        const char* operation;
        std::function<void()> call;
        std::vector<std::u16string> paths;
        int errorValue;
    };
    std::vector<std::u16string> files;
    const std::vector<Case> cases = {
        {"list", [&] { ops.getFiles(missing, files, true); }, {missing}, ENOENT},
        {"create", [&] { ops.createFolders(dir.u16("file/sub")); }, {dir.u16("file/sub")}, ENOTDIR},
        {"copy", [&] { ops.copy(missing, target, opc::ExistsMode::Overwrite); }, {missing, target}, ENOENT},
        {"rename", [&] { ops.rename(missing, target); }, {missing, target}, ENOENT},
        {"remove", [&] { ops.removeAll(tooLong); }, {tooLong}, ENAMETOOLONG},
    };
    for (const Case& c : cases) {
        try {
            c.call();
            ADD_FAILURE() << c.operation << " succeeded";
        } catch (const opc::Exception& e) {
            std::string lower = e.what();
            std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char ch) { return std::tolower(ch); });
            EXPECT_TRUE(contains(lower, c.operation)) << e.what();
            for (const std::u16string& path : c.paths) EXPECT_TRUE(contains(e.what(), toUtf8(path))) << e.what();
            EXPECT_EQ(e.code(), systemCode(c.errorValue)) << e.what();
            EXPECT_EQ(e.code().message(), std::strerror(c.errorValue));
        }
    }
}

TEST(Messages, ReportingFormsCarryTheSameCodes) {
    TempDir dir;
    writeFile(dir.path() / "file", "content");
    opc::LocalFileSystemOps ops;
    boost::system::error_code code;
    ops.removeAll(dir.u16(std::string(300, 'n')), code);
    EXPECT_EQ(code, systemCode(ENAMETOOLONG));
    EXPECT_EQ(code.message(), std::strerror(ENAMETOOLONG));
    code.clear();
    ops.createFolders(dir.u16("file/sub"), code);
    EXPECT_EQ(code, systemCode(ENOTDIR));
    EXPECT_EQ(code.message(), std::strerror(ENOTDIR));
}

}  // namespace
