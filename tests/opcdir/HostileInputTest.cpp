// Archives and folders from strangers: nothing in them reaches outside the
// package, blocks, exhausts memory or leaves anything half-made.

#include "OpcdirHarness.h"
#include "support/ChildProcess.h"
#include "support/IrregularEntries.h"
#include "support/RawZip.h"

#include <sys/resource.h>

#include <fstream>
#include <functional>

namespace opc::test {
namespace {

const std::string kTypes = "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>";

// An archive of a content-types entry, an entry written before the trouble,
// and what add() puts after them.
std::string archive(const std::function<void(RawZip&)>& add) {
    RawZip zip;
    zip.stored("[Content_Types].xml", kTypes);
    zip.stored("first.xml", "<written first/>");
    add(zip);
    return zip.bytes();
}

std::string withEntry(const std::string& name, const std::string& data = "x") {
    return archive([&](RawZip& z) { z.stored(name, data); });
}

// Each archive unpacked with --force onto "pkg", and into new/deeper/pkg: a
// refusal leaves the folder exactly as it was, no new folders included.
TEST(UnpackHostile, EveryRefusalNamesItsCauseAndLeavesTheTargetAndNothingElse) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
    writeFile(dir.path() / "pkg" / "word" / "document.xml", "<old/>");
    const auto corpus = [](const std::string& name) { return readFile(testDataDir() / "corpus" / name); };
    const std::string docx = corpus("pydocx-test.docx");
    const std::string long256(256, 'n');
    std::string deep;
    while (deep.size() < 4000) deep += std::string(199, 'd') + "/";
    const std::string deeper = deep + std::string(96, 'e');  // 4096 bytes
    deep += std::string(80, 'x');                            // 4080: fine alone, too long below the package folder
    const std::string unsafe = "unsafe entry name '";
    const std::string tooLong = "': File name too long: ";
    const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
        // The archive, options, and the message after "bad.zip: ".
        {withEntry("/etc/evil"), "", unsafe + "/etc/evil': absolute name"},
        {withEntry("word/../../evil"), "", unsafe + "word/../../evil': '..' segment in name"},
        {withEntry("..\\..\\evil"), "", unsafe + "..\\\\..\\\\evil': backslash in name"},
        {withEntry(std::string("word/a\0.xml", 11)), "", unsafe + "word/a\\x00.xml': NUL byte in name"},
        {withEntry("a/\x1b[2J\xc2\x9b/../x"), "", unsafe + "a/\\x1b[2J\\xc2\\x9b/../x': '..' segment in name"},
        {withEntry("[trash]x.xml"), "", unsafe + "[trash]x.xml': reserved name '[trash]'"},
        {corpus("malformed/nuget-PackageWithDoubleForwardSlash.1.0.0.nupkg"), "",
         unsafe + "lib//malformedfile.txt': empty segment in name"},
        {withEntry("word/" + long256), "",
         unsafe + "word/" + long256 + tooLong + "a segment of 256 bytes (at most 255)"},
        {withEntry(deeper), "", unsafe + deeper + tooLong + "4096 bytes (at most 4095)"},
        {withEntry(deep), "", unsafe + deep + tooLong + "more than 4095 bytes below the package's folder"},
        {corpus("malformed/poi-duplicate-filename.xlsx"), "", "duplicate entry 'xl/worksheets/sheet1.xml'"},
        {archive([](RawZip& z) {
             z.stored("Word/A.xml", "1");
             z.stored("word/a.xml", "2");
         }),
         "", "duplicate entry 'word/a.xml'"},
        {corpus("malformed/poi-OPCCompliance_DerivedPartNameFAIL.docx"), "",
         "entry 'word/document.xml' is also a folder of entry 'word/document.xml/image1.gif'"},
        {[] {
             RawZip zip;
             zip.stored("word/[Content_Types].xml", kTypes);
             return zip.bytes();
         }(),
         "", "not a package: no '[Content_Types].xml' entry"},
        {docx.substr(0, docx.size() / 2), "", "not a ZIP archive, or truncated (no end of central directory)"},
        {archive([](RawZip& z) { z.alias("copy.xml", 0); }), "",
         "entries '[Content_Types].xml' and 'copy.xml' share or overlap compressed data"},
        // a.bin claims b.bin's header and data as its own.
        {archive([](RawZip& z) {
             RawZip::Entry& a = z.stored("a.bin", "aaaa");
             z.stored("b.bin", "bbbb");
             a.compressedSize = a.size = 4 + 30 + 5 + 4;
         }),
         "", "entries 'a.bin' and 'b.bin' share or overlap compressed data"},
        {archive([](RawZip& z) { z.stored("a.bin", "aaaa").compressedSize = 4000; }), "",
         "corrupt ZIP archive: entry 'a.bin' runs into the central directory"},
        // Zeros deflate a little more than 1000 times.
        {archive([](RawZip& z) { z.deflated("zeros.bin", std::string(20 << 20, '\0')); }), "",
         "entry 'zeros.bin' expands more than 1000 times (see --max-ratio)"},
        {withEntry("a.bin", std::string(3000, 'a')), "--max-size 2K",
         "expands to " + std::to_string(3000 + 16 + kTypes.size()) +
             " bytes, more than the limit of 2048 bytes (see --max-size)"},
        // Lies that show only while inflating, after earlier entries are
        // written; limits go by declared sizes, so a bomb is stopped at once.
        {archive([](RawZip& z) { z.deflated("zeros.bin", std::string(4 << 20, '\0')).size = 10; }), "--max-ratio 100",
         "entry 'zeros.bin' inflates to more than the 10 bytes it declares"},
        {archive([](RawZip& z) { z.deflated("a.bin", "aaaaa").size = 9; }), "",
         "entry 'a.bin' inflates to 5 bytes, not the 9 it declares"},
        {archive([](RawZip& z) { z.deflated("a.bin", std::string(300, 'a')).crc ^= 1; }), "",
         "corrupt entry 'a.bin': CRC error"},
    };
    for (const auto& [bytes, options, message] : cases) {
        SCOPED_TRACE(message.substr(0, 120));
        writeFile(dir.path() / "bad.zip", bytes);
        expectRefused(dir.path(), words("unpack --force " + options + " bad.zip pkg"), "bad.zip: " + message);
        expectRefused(dir.path(), words("unpack " + options + " bad.zip new/deeper/pkg"), "bad.zip: " + message);
    }
    // Exactly at each limit: a segment of 255 bytes, the ratio and the size allowed.
    const std::string longest(255, 'n');
    writeFile(dir.path() / "bad.zip", withEntry(longest, "<new/>"));
    const std::string atLimits = "--max-ratio 1 --max-size " + std::to_string(kTypes.size() + 16 + 6);
    EXPECT_EQ(runOpcdir(dir.path(), words("unpack --force " + atLimits + " bad.zip pkg")), (RunResult{0, "", ""}));
    EXPECT_EQ(snapshotTree(dir.path() / "pkg"),
              (TreeSnapshot{{"[Content_Types].xml", kTypes}, {"first.xml", "<written first/>"}, {longest, "<new/>"}}));
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{".opc-lock-pkg", "bad.zip", "pkg"}));
}

// A bad entry among those inflated ahead on worker threads fails as a
// streamed one does: the first in archive order, whatever the jobs.
TEST(UnpackHostile, TheFirstBadEntryIsNamedAlikeWhateverTheJobs) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
    std::string text;
    for (int i = 0; text.size() < 3000; ++i) text += "<w:t>" + std::to_string(i * 7919 % 1000) + "</w:t>";
    const auto around = [&](const std::function<void(RawZip&)>& bad) {
        return archive([&](RawZip& z) {
            for (int i = 0; i < 40; ++i) z.deflated("a/" + std::to_string(i) + ".xml", text + std::to_string(i));
            bad(z);
            for (int i = 40; i < 80; ++i) z.deflated("b/" + std::to_string(i) + ".xml", text + std::to_string(i));
            z.deflated("late.xml", text).crc ^= 1;
        });
    };
    const std::string size = std::to_string(text.size());
    const std::vector<std::pair<std::string, std::string>> cases = {
        {around([&](RawZip& z) { z.deflated("x.xml", text).data = std::string(20, '\xff'); }),
         "corrupt entry 'x.xml': Zlib error: data error"},
        {around([&](RawZip& z) {
             RawZip::Entry& entry = z.deflated("x.xml", text);
             entry.data.resize(entry.data.size() / 2);
         }),
         "corrupt entry 'x.xml': CRC error"},
        {around([&](RawZip& z) { z.deflated("x.xml", text).crc ^= 1; }), "corrupt entry 'x.xml': CRC error"},
        {around([&](RawZip& z) { z.stored("x.xml", text).crc ^= 1; }), "corrupt entry 'x.xml': CRC error"},
        {around([&](RawZip& z) { z.stored("x.xml", text).size += 1; }),
         "corrupt entry 'x.xml': Zip archive inconsistent"},
        {around([&](RawZip& z) { z.deflated("x.xml", text).size -= 1; }),
         "entry 'x.xml' inflates to more than the " + std::to_string(text.size() - 1) + " bytes it declares"},
        {around([&](RawZip& z) { z.deflated("x.xml", text).size += 1; }),
         "entry 'x.xml' inflates to " + size + " bytes, not the " + std::to_string(text.size() + 1) + " it declares"},
    };
    for (const auto& [bytes, message] : cases) {
        SCOPED_TRACE(message);
        writeFile(dir.path() / "bad.zip", bytes);
        for (const std::string jobs : {"1", "2", "5"})
            expectRefused(dir.path(), words("unpack --force --jobs " + jobs + " bad.zip pkg"), "bad.zip: " + message);
    }
}

// A package folder from someone else: links out of it, a FIFO, a socket.
TEST(StrangersPackage, NothingOutsideIsReadAndACommitDropsWhatIsNoFile) {
    const NoHang noHang;
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
    writeFile(dir.path() / "pkg" / "word" / "a.xml", "<a/>");
    writeFile(dir.path() / "in.xml", "<new/>");
    makeIrregularEntries(dir.path() / "pkg" / "word", dir.path() / "outside");
    EXPECT_EQ(runOpcdir(dir.path(), {"ls", "pkg"}).out, "71  /[Content_Types].xml\n 4  /word/a.xml\n");
    for (const std::string part : {"word/out.xml", "word/fifo.xml", "word/zero.xml", "word/linked/inner/file.xml"})
        expectRefused(dir.path(), {"cat", "pkg", part}, "pkg: no part '/" + part + "'");
    ASSERT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "out.zip"}).status, 0);
    EXPECT_EQ(readZipEntries(dir.path() / "out.zip"),
              (ZipEntries{{"[Content_Types].xml", kTypes}, {"word/a.xml", "<a/>"}}));
    EXPECT_EQ(runOpcdir(dir.path(), {"put", "pkg", "b.xml", "in.xml"}), (RunResult{0, "", ""}));
    EXPECT_EQ(
        snapshotTree(dir.path() / "pkg"),
        (TreeSnapshot{{"[Content_Types].xml", kTypes}, {"b.xml", "<new/>"}, {"word/", ""}, {"word/a.xml", "<a/>"}}));
    EXPECT_EQ(snapshotTree(dir.path() / "outside"),
              (TreeSnapshot{{"inner/", ""}, {"inner/file.xml", "outside inner"}, {"secret", "outside secret"}}));
}

// ls types parts by override or default (any case, percent-encoding or
// comments) and escapes what is not printable UTF-8 on a terminal and in JSON.
TEST(ListNames, TypesByOverrideOrDefaultAndNamesEscapedWhereTheyCouldHarm) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml",
              "<Types><Default Extension=\"XML\" ContentType=\"application/xml\"/>"
              "<!-- <Default Extension=\"bin\" ContentType=\"commented/out\"/> -->"
              "<Override PartName=\"/Word/Document.xml\" ContentType=\"text/x-doc&amp;main\"/>"
              "<Override PartName=\"/a\x1b[2Jb.bin\" ContentType=\"text/\x07x\"/>"
              "<Override PartName='/%C3%A9t%C3%A9.txt' ContentType='text/plain'/></Types>");
    writeFile(dir.path() / "pkg" / "word" / "document.xml", "<doc/>");
    writeFile(dir.path() / "pkg" / "word" / "styles.xml", "<styles>..</styles>");
    writeFile(dir.path() / "pkg" / "\xc3\xa9t\xc3\xa9.txt", "summer");
    writeFile(dir.path() / "pkg" / "a\x1b[2Jb.bin", "1");
    writeFile(dir.path() / "pkg" / "c\"\\\x01\xc2\x9b\x7f\xff.bin", std::string(1234, 'x'));
    opc::LocalFileSystemOps local;
    const std::string pkg = (dir.path() / "pkg").string();
    EXPECT_EQ(runWith(local, {"ls", pkg}).out,
              " 331  /[Content_Types].xml\n   1  /a\x1b[2Jb.bin\n1234  /c\"\\\x01\xc2\x9b\x7f\xff.bin\n"
              "   6  /word/document.xml\n  19  /word/styles.xml\n   6  /\xc3\xa9t\xc3\xa9.txt\n");
    EXPECT_EQ(runWith(local, {"ls", "--long", pkg}, false, true).out,
              " 331  -                /[Content_Types].xml\n"
              "   1  text/\\x07x       /a\\x1b[2Jb.bin\n"
              "1234  -                /c\"\\\\\\x01\\xc2\\x9b\\x7f\\xff.bin\n"
              "   6  text/x-doc&main  /word/document.xml\n"
              "  19  application/xml  /word/styles.xml\n"
              "   6  text/plain       /\xc3\xa9t\xc3\xa9.txt\n");
    const std::string json =
        "{\"package\": \"" + pkg +
        "\", \"parts\": [\n"
        "  {\"name\": \"/[Content_Types].xml\", \"size\": 331, \"contentType\": null},\n"
        "  {\"name\": \"/a\\u001b[2Jb.bin\", \"size\": 1, \"contentType\": \"text/\\u0007x\"},\n"
        "  {\"name\": \"/c\\\"\\\\\\u0001\\u009b\\u007f\\udcff.bin\", \"size\": 1234, "
        "\"contentType\": null},\n"
        "  {\"name\": \"/word/document.xml\", \"size\": 6, \"contentType\": \"text/x-doc&main\"},\n"
        "  {\"name\": \"/word/styles.xml\", \"size\": 19, \"contentType\": \"application/xml\"},\n"
        "  {\"name\": \"/\xc3\xa9t\xc3\xa9.txt\", \"size\": 6, \"contentType\": \"text/plain\"}\n"
        "]}\n";
    EXPECT_EQ(runWith(local, {"ls", "--json", pkg}).out, json);
    EXPECT_EQ(runWith(local, {"ls", "--json", pkg}, false, true).out, json);

    // A stream cut short still gives what came before the cut; one in UTF-16
    // reads as well as one in UTF-8.
    std::string utf16 = "\xff\xfe";
    for (const char c : std::string("<Types><Default Extension='bin' ContentType='application/x-bin'/></Types>"))
        utf16 += std::string(1, c) + '\0';
    for (const auto& [types, expected] : std::vector<std::pair<std::string, std::string>>{
             {"<Types><Override PartName=\"/word/document.xml\" ContentType=\"text/x-doc\"/>"
              "<Default Extension=\"xml\" ContentType=\"application/xml\"/><Default Extension=\"txt\" Cont",
              "- - - text/x-doc application/xml -"},
             {utf16, "- application/x-bin application/x-bin - - -"}}) {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", types);
        std::string listed;
        std::istringstream lines(runWith(local, {"ls", "--long", pkg}).out);
        for (std::string line; std::getline(lines, line);) {
            std::istringstream fields(line);
            std::string size, type;
            fields >> size >> type;
            listed += (listed.empty() ? "" : " ") + type;
        }
        EXPECT_EQ(listed, expected) << types;
    }
}

// 260 names of 2,000 segments each: keeping every prefix took a gigabyte for
// this 1 MB central directory; the child may grow by a small multiple of it.
TEST(UnpackHostile, DeepNamesAreCheckedWithinASmallMultipleOfTheCentralDirectory) {
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "AddressSanitizer cannot run under RLIMIT_AS";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    GTEST_SKIP() << "AddressSanitizer cannot run under RLIMIT_AS";
#endif
#endif
    TempDir dir;
    RawZip zip;
    std::string deep;
    while (deep.size() < 3990) deep += "a/";
    for (int i = 0; i < 260; ++i) zip.stored("k" + std::to_string(i) + "/" + deep + "x.xml", "x");
    zip.write(dir.path() / "deep.zip");
    const std::size_t allowance = 16 * zip.centralDirectorySize() + (std::size_t{32} << 20);
    ASSERT_GT(zip.centralDirectorySize(), std::size_t{1} << 20);
    const std::string archive = (dir.path() / "deep.zip").string();
    const pid_t child = forkChild([&] {
        std::ifstream status("/proc/self/status");
        std::size_t used = 0;
        for (std::string line; std::getline(status, line);)
            if (line.rfind("VmSize:", 0) == 0) used = std::stoul(line.substr(7)) * 1024;
        const rlimit limit{used + allowance, used + allowance};
        ::setrlimit(RLIMIT_AS, &limit);
        const RunResult result = run({"unpack", archive, (dir.path() / "pkg").string()});
        std::ofstream(dir.path() / "err") << result.err;
        return result.status;
    });
    EXPECT_EQ(waitChild(child), 1);
    EXPECT_EQ(readFile(dir.path() / "err"), "opcdir: " + archive + ": not a package: no '[Content_Types].xml' entry\n");
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{".opc-lock-pkg", "deep.zip", "err"}));
}

}  // namespace
}  // namespace opc::test
