#include "OpcdirHarness.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <opccore/LocalFileSystemOps.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

namespace opc::test {
namespace {

std::string readWhole(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

ZipEntries sortedByName(ZipEntries entries) {
    std::sort(entries.begin(), entries.end());
    return entries;
}

TEST(PackCorpus, UnpackThenPackKeepsEveryEntryOfEveryPackage) {
    for (const auto& archive : corpusPackages()) {
        SCOPED_TRACE(archive.filename().string());
        TempDir dir;
        ASSERT_EQ(runOpcdir(dir.path(), {"unpack", archive.string(), "pkg"}).status, 0);
        const RunResult packed = runOpcdir(dir.path(), {"pack", "pkg", "out.zip"});
        ASSERT_EQ(packed.status, 0) << packed.err;
        EXPECT_EQ(packed.err, "");

        const ZipEntries original = readZipEntries(archive);
        const ZipEntries repacked = readZipEntries(dir.path() / "out.zip");
        EXPECT_EQ(sortedByName(repacked), sortedByName(original));
        // "[Content_Types].xml" first, then name order.
        ASSERT_FALSE(repacked.empty());
        EXPECT_EQ(repacked.front().first, "[Content_Types].xml");
        EXPECT_TRUE(std::is_sorted(repacked.begin() + 1, repacked.end()));
        EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{"out.zip", "pkg"}));
    }
}

TEST(PackCorpus, PackingTwiceGivesIdenticalBytes) {
    for (const auto& archive : corpusPackages()) {
        SCOPED_TRACE(archive.filename().string());
        TempDir dir;
        ASSERT_EQ(runOpcdir(dir.path(), {"unpack", archive.string(), "pkg"}).status, 0);
        ASSERT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "first.zip"}).status, 0);
        // A later moment and touched files must not show in the archive.
        std::filesystem::last_write_time(dir.path() / "pkg" / "[Content_Types].xml",
                                         std::filesystem::file_time_type::clock::now() + std::chrono::hours(24));
        ASSERT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "second.zip"}).status, 0);
        EXPECT_EQ(readWhole(dir.path() / "first.zip"), readWhole(dir.path() / "second.zip"));
    }
}

TEST(PackFormat, EntriesAreDeflatedWithFixedTimeAndAttributesAndNoExtras) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "pkg" / "word" / "document.xml", "<w:document/>");
    writeFile(dir.path() / "pkg" / "word" / "media" / "r\xc3\xa9sum\xc3\xa9.txt", "caf\xc3\xa9");
    writeFile(dir.path() / "pkg" / "_rels" / ".rels", "<Relationships/>");
    const RunResult result = runOpcdir(dir.path(), {"pack", "pkg", "out.docx"});
    ASSERT_EQ(result.status, 0) << result.err;

    const std::vector<DirectoryRecord> records = centralDirectory(readWhole(dir.path() / "out.docx"));
    std::vector<std::string> names;
    for (const DirectoryRecord& record : records) {
        SCOPED_TRACE(record.name);
        names.push_back(record.name);
        EXPECT_EQ(record.method, 8);              // deflate
        EXPECT_EQ(record.dosDate, (1 << 5) | 1);  // 1980-01-01
        EXPECT_EQ(record.dosTime, 0);             // 00:00:00
        EXPECT_EQ(record.madeBy >> 8, 0);         // MS-DOS attributes
        EXPECT_EQ(record.externalAttributes, 0u);
        EXPECT_EQ(record.extra, "");  // no ZIP64, no timestamps
        EXPECT_EQ(record.localExtra, "");
        const bool ascii = std::all_of(record.name.begin(), record.name.end(),
                                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        EXPECT_EQ((record.flags & 0x800) != 0, !ascii);  // the UTF-8 flag only where needed
    }
    // No folder entries, no leading "/".
    EXPECT_EQ(names, (std::vector<std::string>{"[Content_Types].xml", "_rels/.rels", "word/document.xml",
                                               "word/media/r\xc3\xa9sum\xc3\xa9.txt"}));
    EXPECT_EQ(readZipEntries(dir.path() / "out.docx")[3].second, "caf\xc3\xa9");
}

TEST(PackFormat, EmptyPartsAndLargePartsKeepTheirBytes) {
    TempDir dir;
    std::string large(3 << 20, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>((i * 2654435761u) >> 13);
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "pkg" / "empty.bin", "");
    writeFile(dir.path() / "pkg" / "large.bin", large);
    ASSERT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "out.zip"}).status, 0);
    EXPECT_EQ(readZipEntries(dir.path() / "out.zip"),
              (ZipEntries{{"[Content_Types].xml", "<Types/>"}, {"empty.bin", ""}, {"large.bin", large}}));
}

TEST(PackProgress, ShownOnATerminalForLargeWorkOnly) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "pkg" / "zeros.bin", "");
    std::filesystem::resize_file(dir.path() / "pkg" / "zeros.bin", std::uintmax_t{64} << 20);  // sparse: cheap to make
    const std::string pkg = (dir.path() / "pkg").string();
    opc::LocalFileSystemOps local;

    const RunResult terminal = runOpcdirWith(local, {"pack", pkg, (dir.path() / "a.zip").string()}, "", true);
    EXPECT_EQ(terminal.status, 0) << terminal.err;
    EXPECT_EQ(terminal.err.rfind("\ropcdir: pack: 0% of 64 MiB\ropcdir: pack: 1% of 64 MiB", 0), 0u) << terminal.err;
    const std::string last = "\ropcdir: pack: 99% of 64 MiB\ropcdir: pack: 100% of 64 MiB\n";
    ASSERT_GE(terminal.err.size(), last.size());
    EXPECT_EQ(terminal.err.substr(terminal.err.size() - last.size()), last);
    EXPECT_EQ(std::count(terminal.err.begin(), terminal.err.end(), '\r'), 101);

    const RunResult pipe = runOpcdirWith(local, {"pack", pkg, (dir.path() / "b.zip").string()}, "", false);
    EXPECT_EQ(pipe.status, 0);
    EXPECT_EQ(pipe.err, "");
    std::filesystem::resize_file(dir.path() / "pkg" / "zeros.bin", 1 << 20);
    const RunResult small = runOpcdirWith(local, {"pack", pkg, (dir.path() / "c.zip").string()}, "", true);
    EXPECT_EQ(small.status, 0);
    EXPECT_EQ(small.err, "");
}

TEST(PackTarget, ExistingFileIsReplaced) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "out.zip", "old bytes");
    ASSERT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "out.zip"}).status, 0);
    EXPECT_EQ(readZipEntries(dir.path() / "out.zip"), (ZipEntries{{"[Content_Types].xml", "<Types/>"}}));
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{"out.zip", "pkg"}));
}

TEST(PackTarget, RefusalsLeaveEverythingAsItWas) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "plain" / "a.txt", "a");
    std::filesystem::create_directory(dir.path() / "folder");
    const TreeSnapshot before = snapshotTree(dir.path());
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"pack", "pkg", "pkg/inside.zip"}, "opcdir: pkg/inside.zip: lies inside the package pkg\n"},
        {{"pack", "pkg", "folder"}, "opcdir: folder: is a folder\n"},
        {{"pack", "missing", "out.zip"}, "opcdir: missing: no such package folder\n"},
        {{"pack", "plain", "out.zip"}, "opcdir: plain: not a package: no [Content_Types].xml\n"},
        {{"pack", "plain/a.txt", "out.zip"}, "opcdir: plain/a.txt: not a folder\n"},
    };
    for (const auto& [arguments, message] : cases) {
        SCOPED_TRACE(arguments[2]);
        const RunResult result = runOpcdir(dir.path(), arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, message);
        EXPECT_EQ(snapshotTree(dir.path()), before);
    }
    const RunResult noFolder = runOpcdir(dir.path(), {"pack", "pkg", "nowhere/out.zip"});
    EXPECT_EQ(noFolder.status, 1);
    EXPECT_EQ(noFolder.err, "opcdir: nowhere/out.zip: its folder does not exist\n");
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

}  // namespace
}  // namespace opc::test
