#include <opccore/LocalFileSystemOps.h>

#include "support/OpcAssertions.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using opc::ExistsMode;
using opc::test::readFile;
using opc::test::snapshotTree;
using opc::test::systemCode;
using opc::test::TempDir;
using opc::test::toUtf8;
using opc::test::TreeSnapshot;
using opc::test::writeFile;

constexpr std::size_t kChunk = std::size_t{1} << 20;

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Bytes [offset, offset + size) of a pattern that never repeats at a chunk or
// page distance, so a skipped, doubled or shifted block shows.
void fillPattern(std::string& chunk, std::uint64_t offset, std::size_t size) {
    chunk.resize(size);
    for (std::size_t i = 0; i < size; ++i) {
        std::uint64_t x = offset + i;
        x = (x ^ (x >> 17)) * 0x9E3779B97F4A7C15ull;
        chunk[i] = static_cast<char>(x >> 56);
    }
}

void writePatternFile(const fs::path& path, std::uint64_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    std::string chunk;
    for (std::uint64_t offset = 0; offset < size; offset += kChunk) {
        fillPattern(chunk, offset, static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, size - offset)));
        out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    }
    ASSERT_TRUE(out.good());
}

// Compares the file with the pattern chunk by chunk; returns the offset of the
// first chunk that differs, or size when the file holds the pattern exactly.
std::uint64_t firstDifferentChunk(const fs::path& path, std::uint64_t size) {
    std::ifstream in(path, std::ios::binary);
    std::string expected;
    std::string actual(kChunk, '\0');
    for (std::uint64_t offset = 0; offset < size; offset += kChunk) {
        const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, size - offset));
        fillPattern(expected, offset, length);
        in.read(actual.data(), static_cast<std::streamsize>(length));
        if (static_cast<std::size_t>(in.gcount()) != length || actual.compare(0, length, expected) != 0) return offset;
    }
    return in.peek() == std::char_traits<char>::eof() ? size : size + 1;
}

// ---- copy ----------------------------------------------------------------------

TEST(Copy, FileLargerThan64MiBIsCopiedByteForByte) {
    TempDir dir;
    const std::uint64_t size = (std::uint64_t{64} << 20) + 12345;  // not a whole number of chunks
    writePatternFile(dir.path() / "big.bin", size);
    ASSERT_EQ(fs::file_size(dir.path() / "big.bin"), size);
    opc::LocalFileSystemOps ops;
    ops.copy(dir.u16("big.bin"), dir.u16("copy.bin"), ExistsMode::Fail);
    ASSERT_EQ(fs::file_size(dir.path() / "copy.bin"), size);
    EXPECT_EQ(firstDifferentChunk(dir.path() / "copy.bin", size), size);
    EXPECT_EQ(firstDifferentChunk(dir.path() / "big.bin", size), size);
}

TEST(Copy, EveryModeCreatesAMissingDestination) {
    TempDir dir;
    writeFile(dir.path() / "from", std::string("a\0b\xFF", 4));
    writeFile(dir.path() / "empty", "");
    opc::LocalFileSystemOps ops;
    ops.copy(dir.u16("from"), dir.u16("fail"), ExistsMode::Fail);
    ops.copy(dir.u16("from"), dir.u16("overwrite"), ExistsMode::Overwrite);
    ops.copy(dir.u16("from"), dir.u16("skip"), ExistsMode::Skip);
    ops.copy(dir.u16("empty"), dir.u16("emptyCopy"), ExistsMode::Overwrite);
    const std::string bytes("a\0b\xFF", 4);
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"empty", ""},
                                                       {"emptyCopy", ""},
                                                       {"fail", bytes},
                                                       {"from", bytes},
                                                       {"overwrite", bytes},
                                                       {"skip", bytes}}));
}

TEST(Copy, FailModeThrowsFileExistsAndLeavesTheDestination) {
    TempDir dir;
    writeFile(dir.path() / "from", "new content");
    writeFile(dir.path() / "to", "old");
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    try {
        ops.copy(dir.u16("from"), dir.u16("to"), ExistsMode::Fail);
        FAIL() << "copy over an existing file succeeded";
    } catch (const opc::Exception& e) {
        EXPECT_EQ(e.code(), systemCode(EEXIST));
        EXPECT_TRUE(contains(e.what(), toUtf8(dir.u16("from")))) << e.what();
        EXPECT_TRUE(contains(e.what(), toUtf8(dir.u16("to")))) << e.what();
    }
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(Copy, OverwriteReplacesContentLongerOrShorter) {
    TempDir dir;
    writeFile(dir.path() / "short", "tiny");
    writeFile(dir.path() / "long", "a much longer content than tiny");
    writeFile(dir.path() / "to", "a much longer old content that must not leave a tail");
    opc::LocalFileSystemOps ops;
    ops.copy(dir.u16("short"), dir.u16("to"), ExistsMode::Overwrite);
    EXPECT_EQ(readFile(dir.path() / "to"), "tiny");
    ops.copy(dir.u16("long"), dir.u16("to"), ExistsMode::Overwrite);
    EXPECT_EQ(readFile(dir.path() / "to"), "a much longer content than tiny");
    writeFile(dir.path() / "empty", "");
    ops.copy(dir.u16("empty"), dir.u16("to"), ExistsMode::Overwrite);
    EXPECT_EQ(readFile(dir.path() / "to"), "");
}

TEST(Copy, SkipLeavesAnExistingDestination) {
    TempDir dir;
    writeFile(dir.path() / "from", "new content");
    writeFile(dir.path() / "to", "old");
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    EXPECT_NO_THROW(ops.copy(dir.u16("from"), dir.u16("to"), ExistsMode::Skip));
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(Copy, MissingSourceThrowsNoSuchFileNamingBothPaths) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    for (const ExistsMode mode : {ExistsMode::Fail, ExistsMode::Overwrite, ExistsMode::Skip}) {
        try {
            ops.copy(dir.u16("missing"), dir.u16("to"), mode);
            ADD_FAILURE() << "copy of a missing file succeeded, mode " << static_cast<int>(mode);
        } catch (const opc::Exception& e) {
            EXPECT_EQ(e.code(), systemCode(ENOENT));
            EXPECT_TRUE(contains(e.what(), toUtf8(dir.u16("missing")))) << e.what();
            EXPECT_TRUE(contains(e.what(), toUtf8(dir.u16("to")))) << e.what();
        }
    }
    EXPECT_TRUE(opc::test::listFolder(dir.path()).empty());
}

TEST(Copy, MissingDestinationFolderThrowsAndMakesNothing) {
    TempDir dir;
    writeFile(dir.path() / "from", "x");
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    EXPECT_OPC_EXCEPTION(ops.copy(dir.u16("from"), dir.u16("no/to"), ExistsMode::Overwrite),
                         "Cannot copy \"" + toUtf8(dir.u16("from")) + "\" to \"" + toUtf8(dir.u16("no/to")) + "\"",
                         systemCode(ENOENT));
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(Copy, FolderAsSourceIsRefused) {
    TempDir dir;
    fs::create_directories(dir.path() / "folder");
    opc::LocalFileSystemOps ops;
    try {
        ops.copy(dir.u16("folder"), dir.u16("to"), ExistsMode::Overwrite);
        FAIL() << "a folder was copied as a file";
    } catch (const opc::Exception& e) {
        EXPECT_EQ(e.code(), systemCode(EISDIR));
    }
    EXPECT_FALSE(fs::exists(dir.path() / "to"));
}

TEST(Copy, OntoItselfNeverDestroysTheFile) {
    TempDir dir;
    writeFile(dir.path() / "sub" / "file", "precious content");
    fs::create_hard_link(dir.path() / "sub" / "file", dir.path() / "hardlink");
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    const std::vector<std::u16string> sameFile = {dir.u16("sub/file"), dir.u16() + u"/sub/./file",
                                                  dir.u16() + u"/sub/../sub/file", dir.u16("hardlink")};
    for (const ExistsMode mode : {ExistsMode::Overwrite, ExistsMode::Fail, ExistsMode::Skip}) {
        for (const std::u16string& to : sameFile) {
            try {
                ops.copy(dir.u16("sub/file"), to, mode);
            } catch (const opc::Exception& e) {
                EXPECT_TRUE(e.code()) << e.what();
            }
            ASSERT_EQ(snapshotTree(dir.path()), before)
                << "mode " << static_cast<int>(mode) << ", destination " << toUtf8(to);
        }
    }
}

// ---- rename --------------------------------------------------------------------

TEST(Rename, MovesAFolderWithEverythingInIt) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "types");
    writeFile(dir.path() / "pkg" / "word" / "document.xml", "doc");
    fs::create_directories(dir.path() / "pkg" / "empty");
    const auto inside = snapshotTree(dir.path() / "pkg");
    opc::LocalFileSystemOps ops;
    ops.rename(dir.u16("pkg"), dir.u16(".opc-aside"));
    EXPECT_EQ(opc::test::listFolder(dir.path()), (std::vector<std::string>{".opc-aside"}));
    EXPECT_EQ(snapshotTree(dir.path() / ".opc-aside"), inside);
}

TEST(Rename, OntoAnExistingFolderFailsAndChangesNothing) {
    TempDir dir;
    writeFile(dir.path() / "from" / "a.xml", "from");
    writeFile(dir.path() / "full" / "b.xml", "to");
    fs::create_directories(dir.path() / "empty");  // a plain rename(2) would replace this one
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    for (const char* destination : {"full", "empty"}) {
        try {
            ops.rename(dir.u16("from"), dir.u16(destination));
            ADD_FAILURE() << "rename onto " << destination << " succeeded";
        } catch (const opc::Exception& e) {
            EXPECT_EQ(e.code(), systemCode(EEXIST)) << destination << ": " << e.what();
        }
        EXPECT_EQ(snapshotTree(dir.path()), before) << destination;
    }
}

TEST(Rename, OntoAnExistingFileFailsAndChangesNothing) {
    TempDir dir;
    writeFile(dir.path() / "from", "from");
    writeFile(dir.path() / "to", "to");
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    EXPECT_OPC_EXCEPTION(ops.rename(dir.u16("from"), dir.u16("to")),
                         "Cannot rename \"" + toUtf8(dir.u16("from")) + "\" to \"" + toUtf8(dir.u16("to")) + "\"",
                         systemCode(EEXIST));
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(Rename, MissingSourceThrowsNoSuchFile) {
    TempDir dir;
    opc::LocalFileSystemOps ops;
    try {
        ops.rename(dir.u16("missing"), dir.u16("to"));
        FAIL() << "rename of a missing folder succeeded";
    } catch (const opc::Exception& e) {
        EXPECT_EQ(e.code(), systemCode(ENOENT));
        EXPECT_TRUE(contains(e.what(), toUtf8(dir.u16("missing")))) << e.what();
        EXPECT_TRUE(contains(e.what(), toUtf8(dir.u16("to")))) << e.what();
    }
    EXPECT_TRUE(opc::test::listFolder(dir.path()).empty());
}

// ---- removeAll -----------------------------------------------------------------

TEST(RemoveAll, RemovesANestedTreeAndNothingBeside) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "types");
    writeFile(dir.path() / "pkg" / "word" / "media" / "image.png", "png");
    writeFile(dir.path() / "pkg" / ".hidden", "h");
    fs::create_directories(dir.path() / "pkg" / "empty" / "emptier");
    writeFile(dir.path() / "pkg-sibling" / "keep.xml", "keep");
    writeFile(dir.path() / "pkg.xml", "keep too");
    opc::LocalFileSystemOps ops;
    ops.removeAll(dir.u16("pkg"));
    EXPECT_EQ(snapshotTree(dir.path()),
              (TreeSnapshot{{"pkg-sibling/", ""}, {"pkg-sibling/keep.xml", "keep"}, {"pkg.xml", "keep too"}}));

    writeFile(dir.path() / "pkg2" / "a" / "b", "b");
    boost::system::error_code code;
    ops.removeAll(dir.u16("pkg2"), code);
    EXPECT_FALSE(code) << code.message();
    EXPECT_FALSE(fs::exists(dir.path() / "pkg2"));
}

TEST(RemoveAll, RemovesASingleFile) {
    TempDir dir;
    writeFile(dir.path() / "file", "f");
    opc::LocalFileSystemOps ops;
    ops.removeAll(dir.u16("file"));
    EXPECT_TRUE(opc::test::listFolder(dir.path()).empty());
}

TEST(RemoveAll, LinkToAFolderIsRemovedWithoutTouchingTheTarget) {
    TempDir dir;
    writeFile(dir.path() / "target" / "inner" / "file.xml", "target's");
    writeFile(dir.path() / "pkg" / "part.xml", "part");
    fs::create_directory_symlink(dir.path() / "target", dir.path() / "pkg" / "link");
    fs::create_directory_symlink(dir.path() / "target", dir.path() / "topLink");
    const auto target = snapshotTree(dir.path() / "target");
    opc::LocalFileSystemOps ops;
    ops.removeAll(dir.u16("pkg"));
    ops.removeAll(dir.u16("topLink"));
    EXPECT_EQ(opc::test::listFolder(dir.path()), (std::vector<std::string>{"target"}));
    EXPECT_EQ(snapshotTree(dir.path() / "target"), target);
}

TEST(RemoveAll, MissingPathIsNoFailureInEitherForm) {
    TempDir dir;
    writeFile(dir.path() / "file", "f");
    const auto before = snapshotTree(dir.path());
    opc::LocalFileSystemOps ops;
    EXPECT_NO_THROW(ops.removeAll(dir.u16("missing")));
    EXPECT_NO_THROW(ops.removeAll(dir.u16("missing/deeper")));
    boost::system::error_code code;
    ops.removeAll(dir.u16("missing"), code);
    EXPECT_FALSE(code) << code.message();
    ops.removeAll(dir.u16("missing/deeper"), code);
    EXPECT_FALSE(code) << code.message();
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

}  // namespace
