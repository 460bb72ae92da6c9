#include "CoreTest.h"

#include <sys/stat.h>

#include <cstdint>

namespace opc::test {
namespace {

using Copy = Fixture;
using Rename = Fixture;
using RemoveAll = Fixture;
using FileSize = Fixture;
using ReplaceFile = Fixture;

TEST_F(Copy, FileLargerThan64MiBIsCopiedByteForByte) {
    // Pseudo-random bytes, so a skipped, doubled or shifted block shows.
    std::string content((std::size_t{64} << 20) + 12345, '\0');
    std::uint64_t x = 7;
    for (char& byte : content) byte = static_cast<char>((x = x * 6364136223846793005u + 1442695040888963407u) >> 56);
    writeFile(dir.path() / "big", content);
    ops.copy(dir.u16("big"), dir.u16("copy"), ExistsMode::Fail);
    const std::string copied = readFile(dir.path() / "copy");
    ASSERT_EQ(copied.size(), content.size());
    EXPECT_TRUE(copied == content) << "bytes differ";
}

TEST_F(Copy, ExistsModeDecidesAboutAnExistingDestination) {
    writeFile(dir.path() / "from", std::string("a\0b\xFF", 4));
    writeFile(dir.path() / "to", "a longer old content");
    const TreeSnapshot before = snapshotTree(dir.path());
    EXPECT_OPC_EXCEPTION(ops.copy(dir.u16("from"), dir.u16("to"), ExistsMode::Fail),
                         message("copy", dir.u16("from"), dir.u16("to")), systemCode(EEXIST));
    EXPECT_EQ(snapshotTree(dir.path()), before);
    ops.copy(dir.u16("from"), dir.u16("to"), ExistsMode::Skip);
    EXPECT_EQ(snapshotTree(dir.path()), before);
    ops.copy(dir.u16("from"), dir.u16("to"), ExistsMode::Overwrite);
    ops.copy(dir.u16("from"), dir.u16("new"), ExistsMode::Skip);
    const std::string bytes("a\0b\xFF", 4);
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"from", bytes}, {"new", bytes}, {"to", bytes}}));
}

TEST_F(Copy, OntoItselfKeepsTheFile) {
    writeFile(dir.path() / "sub" / "file", "precious content");
    fs::create_hard_link(dir.path() / "sub" / "file", dir.path() / "hardlink");
    const TreeSnapshot before = snapshotTree(dir.path());
    for (const ExistsMode mode : {ExistsMode::Overwrite, ExistsMode::Fail, ExistsMode::Skip}) {
        for (const std::u16string& to : {dir.u16() + u"/sub/../sub/file", dir.u16("hardlink")}) {
            try {
                ops.copy(dir.u16("sub/file"), to, mode);
            } catch (const opc::Exception& e) {
                EXPECT_TRUE(e.code()) << e.what();
            }
            EXPECT_EQ(snapshotTree(dir.path()), before) << "mode " << static_cast<int>(mode) << " " << toUtf8(to);
        }
    }
}

TEST_F(Rename, OntoAnExistingFolderFailsAndChangesNothing) {
    writeFile(dir.path() / "from" / "a.xml", "from");
    writeFile(dir.path() / "full" / "b.xml", "to");
    fs::create_directories(dir.path() / "empty");  // a plain rename(2) would replace this one
    const TreeSnapshot before = snapshotTree(dir.path());
    for (const char* to : {"full", "empty"}) {
        EXPECT_OPC_EXCEPTION(ops.rename(dir.u16("from"), dir.u16(to)), message("rename", dir.u16("from"), dir.u16(to)),
                             systemCode(EEXIST));
        EXPECT_EQ(snapshotTree(dir.path()), before) << to;
    }
}

TEST_F(RemoveAll, MissingPathIsNoFailureAndALinkGoesWithoutItsTarget) {
    writeFile(dir.path() / "target" / "inner" / "file.xml", "target's");
    writeFile(dir.path() / "pkg" / "part.xml", "part");
    fs::create_directory_symlink(dir.path() / "target", dir.path() / "pkg" / "link");
    fs::create_directory_symlink(dir.path() / "target", dir.path() / "topLink");
    const TreeSnapshot target = snapshotTree(dir.path() / "target");
    ops.removeAll(dir.u16("pkg"));
    ops.removeAll(dir.u16("topLink"));
    ops.removeAll(dir.u16("missing/deeper"));
    boost::system::error_code code;
    ops.removeAll(dir.u16("missing"), code);
    EXPECT_FALSE(code) << code.message();
    EXPECT_EQ(listFolder(dir.path()), Strings{"target"});
    EXPECT_EQ(snapshotTree(dir.path() / "target"), target);
}

TEST_F(FileSize, IsTheByteCountOfARegularFileAndFailsWhereAnInputStreamWould) {
    writeFile(dir.path() / "file", std::string(70000, 'x'));
    writeFile(dir.path() / "empty", "");
    fs::create_symlink(dir.path() / "file", dir.path() / "link");
    EXPECT_EQ(ops.fileSize(dir.u16("file")), 70000u);
    EXPECT_EQ(ops.fileSize(dir.u16("empty")), 0u);
    const auto fails = [&](const char* name, int error) {
        EXPECT_OPC_EXCEPTION(ops.fileSize(dir.u16(name)), "Cannot read the size of \"" + toUtf8(dir.u16(name)) + "\"",
                             systemCode(error));
    };
    fails("", EISDIR);
    fails("missing", ENOENT);
    fails("file/below", ENOTDIR);
    fails("link", ELOOP);
    ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);
    fails("fifo", ENXIO);
}

TEST_F(ReplaceFile, PutsTheFileInPlaceOfAFileButNeverOfAFolder) {
    const std::string bytes("new\0content\xff", 12);
    writeFile(dir.path() / "tmp", bytes);
    writeFile(dir.path() / "out.zip", "an old archive, longer than the new one");
    ops.replaceFile(dir.u16("tmp"), dir.u16("out.zip"));
    writeFile(dir.path() / "tmp2", "second");
    ops.replaceFile(dir.u16("tmp2"), dir.u16("fresh.zip"));
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"fresh.zip", "second"}, {"out.zip", bytes}}));

    writeFile(dir.path() / "tmp", "third");
    fs::create_directories(dir.path() / "folder");
    fs::create_symlink(dir.path() / "tmp", dir.path() / "link");
    const TreeSnapshot before = snapshotTree(dir.path());
    const auto fails = [&](const char* from, const char* to, int error) {
        EXPECT_OPC_EXCEPTION(ops.replaceFile(dir.u16(from), dir.u16(to)),
                             "Cannot replace \"" + toUtf8(dir.u16(to)) + "\" by \"" + toUtf8(dir.u16(from)) + "\"",
                             systemCode(error));
        EXPECT_EQ(snapshotTree(dir.path()), before) << from << " " << to;
    };
    fails("tmp", "folder", EISDIR);
    fails("missing", "out.zip", ENOENT);
    fails("folder", "moved", EISDIR);
    fails("link", "out.zip", ELOOP);
}

}  // namespace
}  // namespace opc::test
