// diff, check and textconv on folder packages and ZIP package files, git
// running textconv, and pack's output across levels and jobs.

#include "EntryCompression.h"
#include "opcdir/OpcdirHarness.h"
#include "support/RawZip.h"

#include <sys/stat.h>

#include <algorithm>

namespace opc::test {
namespace {

namespace fs = std::filesystem;

// Entries in the order given, each stored, as a ZIP package file.
void writeZip(const fs::path& path, const ZipEntries& entries) {
    RawZip zip;
    for (const auto& [name, bytes] : entries) zip.stored(name, bytes);
    zip.write(path);
}

std::string& entry(ZipEntries& entries, const std::string& name) {
    return std::find_if(entries.begin(), entries.end(), [&](const auto& e) { return e.first == name; })->second;
}

const fs::path kSmallDocx = testDataDir() / "corpus" / "poi-TestCreatePackageOUTPUT.docx";

// The small document with "Hello" in its text changed to "Goodbye".
ZipEntries goodbye() {
    ZipEntries entries = readZipEntries(kSmallDocx);
    std::string& document = entry(entries, "word/document.xml");
    document.replace(document.find("Hello"), 5, "Goodbye");
    return entries;
}

// Folder package on one side, ZIP package file on the other: the same four
// parts, then each kind of difference.
TEST(Diff, FolderAgainstZipReportsEachAddedRemovedAndChangedPart) {
    TempDir dir;
    unzipToFolder(kSmallDocx, dir.path() / "folder");
    const ZipEntries original = readZipEntries(kSmallDocx);
    ZipEntries reordered(original.rbegin(), original.rend());
    std::string& rels = entry(reordered, "_rels/.rels");
    const std::size_t first = rels.find("<Relationship ");
    const std::size_t second = rels.find("<Relationship ", first + 1);
    const std::size_t end = rels.find("</Relationships>");
    rels = rels.substr(0, first) + rels.substr(second, end - second) + rels.substr(first, second - first) +
           rels.substr(end);
    ZipEntries added = original;
    added.emplace_back("docProps/app.xml", "<Properties/>");
    ZipEntries removed = original;
    removed.erase(std::find_if(removed.begin(), removed.end(), [](auto& e) { return e.first == "docProps/core.xml"; }));
    const std::vector<std::pair<ZipEntries, RunResult>> cases = {
        {original, {0, "", ""}},
        {reordered, {0, "", ""}},
        {goodbye(), {1, "changed /word/document.xml\n", ""}},
        {added, {1, "added /docProps/app.xml\n", ""}},
        {removed, {1, "removed /docProps/core.xml\n", ""}},
    };
    const std::string folder = (dir.path() / "folder").string();
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const fs::path zip = dir.path() / ("case" + std::to_string(i) + ".docx");
        writeZip(zip, cases[i].first);
        EXPECT_EQ(run({"diff", folder, zip.string()}), cases[i].second) << "case " << i;
    }
    EXPECT_EQ(run({"diff", "--text", (dir.path() / "case2.docx").string(), folder}),
              (RunResult{1,
                         "changed /word/document.xml\n--- a/word/document.xml\n+++ b/word/document.xml\n"
                         "@@ -3,7 +3,7 @@\n   <w:body>\n     <w:p>\n       <w:r>\n"
                         "-        <w:t>Goodbye Open XML !</w:t>\n+        <w:t>Hello Open XML !</w:t>\n"
                         "       </w:r>\n     </w:p>\n   </w:body>\n",
                         ""}));
    const std::string missing = (dir.path() / "missing.docx").string();
    EXPECT_EQ(run({"diff", folder, missing}),
              (RunResult{2, "", "opcdir: " + missing + ": cannot open: No such file or directory\n"}));

    // Content types in another order are no change; bytes that differ in a
    // part whose type is no XML one get no text diff.
    writeFile(dir.path() / "a" / "[Content_Types].xml",
              "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/>"
              "<Override PartName=\"/a.xml\" ContentType=\"text/plain\"/></Types>");
    writeFile(dir.path() / "a" / "a.xml", "<a/>");
    writeFile(dir.path() / "b" / "[Content_Types].xml",
              "<Types><Override ContentType=\"text/plain\" PartName=\"/a.xml\"/>"
              "<Default ContentType=\"application/xml\" Extension=\"xml\"/></Types>");
    writeFile(dir.path() / "b" / "a.xml", "<a />");
    EXPECT_EQ(run({"diff", "--text", (dir.path() / "a").string(), (dir.path() / "b").string()}),
              (RunResult{1, "changed /a.xml\n", ""}));
}

TEST(Check, ASoundCorpusDocumentAndEachKindOfProblem) {
    TempDir dir;
    const fs::path docx = testDataDir() / "corpus" / "pydocx-test.docx";
    unzipToFolder(docx, dir.path() / "folder");
    EXPECT_EQ(run({"check", docx.string()}), (RunResult{0, "", ""}));
    EXPECT_EQ(run({"check", (dir.path() / "folder").string()}), (RunResult{0, "", ""}));

    const fs::path package = dir.path() / "package";
    writeFile(package / "[Content_Types].xml",
              "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/>"
              "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
              "<Override PartName=\"/gone.xml\" ContentType=\"application/xml\"/></Types>");
    writeFile(package / "_rels" / ".rels",
              "<Relationships><Relationship Id=\"rId1\" Target=\"word/doc.xml\"/>"
              "<Relationship Id=\"rId2\" Target=\"/word/media/../missing.png#x\"/>"
              "<Relationship Id=\"rId3\" Target=\"http://example.com/\" TargetMode=\"External\"/></Relationships>");
    writeFile(package / "word" / "doc.xml", "<doc/>");
    writeFile(package / "word" / "Doc.xml", "<doc/>");
    writeFile(package / "word" / "_rels" / "doc.xml.rels", "<Relationships>");
    writeFile(package / "data.bin", "1");
    writeFile(package / "a b.xml", "<a/>");
    writeFile(package / "dots." / "x.xml", "<a/>");
    writeFile(package / "[trash]" / "old.bin", "ignored");
    fs::create_symlink("word/doc.xml", package / "link.xml");
    ASSERT_EQ(::mkfifo((package / "pipe.xml").c_str(), 0600), 0);
    EXPECT_EQ(run({"check", package.string()}),
              (RunResult{1,
                         "/_rels/.rels: relationship rId2 targets /word/missing.png, which does not exist\n"
                         "/a b.xml: invalid part name: character ' ' not allowed\n"
                         "/data.bin: no content type (no Override and no Default for its extension)\n"
                         "/dots./x.xml: invalid part name: segment ending in '.'\n"
                         "/gone.xml: Override in [Content_Types].xml for a part that does not exist\n"
                         "/link.xml: symbolic link among the parts, not a part: a commit drops it\n"
                         "/pipe.xml: FIFO among the parts, not a part: a commit drops it\n"
                         "/word/_rels/doc.xml.rels: malformed XML: Start-end tags mismatch at byte 14\n"
                         "/word/doc.xml: same name as /word/Doc.xml when case is ignored\n",
                         ""}));

    // ZIP files from others.
    const fs::path malformed = testDataDir() / "corpus" / "malformed";
    writeZip(dir.path() / "bad.docx", {{"[Content_Types].xml", "<Types><Default"}, {"a.xml", "<a/>"}});
    for (const auto& [file, problem] : std::vector<std::pair<fs::path, std::string>>{
             {malformed / "poi-duplicate-filename.xlsx", "/xl/worksheets/sheet1.xml: appears more than once"},
             {malformed / "poi-invalid.xlsx", "/[Content_Types].xml: missing: every package needs it"},
             {dir.path() / "bad.docx",
              "/[Content_Types].xml: malformed XML: Error parsing start element tag at byte 14"}})
        EXPECT_EQ(run({"check", file.string()}), (RunResult{1, problem + "\n", ""}));
}

TEST(Textconv, EachPartUnderItsNameXmlPrettyOthersAsSizeAndDigest) {
    TempDir dir;
    const fs::path package = dir.path() / "package";
    writeFile(package / "[Content_Types].xml",
              "<Types><Override PartName=\"/b.xml\" ContentType=\"x/y+xml\"/><Default Extension=\"png\" "
              "ContentType=\"image/png\"/></Types>");
    writeFile(package / "b.xml", "<b><c>t</c></b>");
    writeFile(package / "i.png", "");
    writeFile(package / "z.xml", "<z>");
    EXPECT_EQ(run({"textconv", package.string()}),
              (RunResult{0,
                         "== /[Content_Types].xml\n<Types>\n  <Default ContentType=\"image/png\" Extension=\"png\" />\n"
                         "  <Override ContentType=\"x/y+xml\" PartName=\"/b.xml\" />\n</Types>\n"
                         "== /b.xml (x/y+xml)\n<b>\n  <c>t</c>\n</b>\n"
                         "== /i.png (image/png): 0 bytes, SHA-256 "
                         "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\n"
                         "== /z.xml: malformed XML: Start-end tags mismatch at byte 2; 3 bytes, SHA-256 "
                         "5317e054d6fa2186f5c1c016d94a95c1bce4b30346c11097d6c77797d6adf71e\n",
                         ""}));
}

// git runs the built tool as the textconv driver the README tells users to
// configure.
TEST(Textconv, GitDiffShowsWhatChangedInsideADocx) {
    if (std::system("git --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "git is not installed";
    TempDir dir;
    const fs::path repo = dir.path() / "repo";
    writeFile(repo / ".gitattributes", "*.docx diff=opc\n");
    fs::copy_file(kSmallDocx, repo / "report.docx");
    const std::string git = "cd " + shellQuoted(repo.string()) + " && HOME=" + shellQuoted(dir.path().string()) +
                            " GIT_CONFIG_NOSYSTEM=1 git ";
    const std::string setUp = git + "init -q && " + git + "config user.name t && " + git + "config user.email t@t && " +
                              git + "config diff.opc.textconv " + shellQuoted(shellQuoted(OPCDIR_PATH) + " textconv") +
                              " && " + git + "add . && " + git + "commit -q -m one";
    ASSERT_EQ(std::system(setUp.c_str()), 0);
    writeZip(repo / "report.docx", goodbye());
    ASSERT_EQ(std::system((git + "diff --no-color > ../diff.txt").c_str()), 0);
    std::string output = readFile(dir.path() / "diff.txt");
    // The index line names blobs that hold the archive's timestamps.
    const std::size_t index = output.find("index ");
    ASSERT_NE(index, std::string::npos) << output;
    output.erase(index, output.find('\n', index) + 1 - index);
    EXPECT_EQ(output,
              "diff --git a/report.docx b/report.docx\n--- a/report.docx\n+++ b/report.docx\n"
              "@@ -24,7 +24,7 @@\n   <w:body>\n     <w:p>\n       <w:r>\n-        <w:t>Hello Open XML !</w:t>\n"
              "+        <w:t>Goodbye Open XML !</w:t>\n       </w:r>\n     </w:p>\n   </w:body>\n");
}

// Whether Debian's python3 opens the file with this call: 1 yes, 0 no, -1
// when its module is missing.
int readsWithPython(const std::string& module, const std::string& call, const fs::path& file) {
    if (std::system(("/usr/bin/python3 -c 'import " + module + "' 2>/dev/null").c_str()) != 0) return -1;
    const std::string command = "/usr/bin/python3 -c 'import sys, " + module + "; " + call + "(sys.argv[1])' " +
                                shellQuoted(file.string()) + " 2>/dev/null";
    return std::system(command.c_str()) == 0 ? 1 : 0;
}

TEST(Pack, SameBytesWhateverTheJobsAndReadBackByUnpackAndRealClients) {
    for (const auto& [file, module, call] : std::vector<std::tuple<std::string, std::string, std::string>>{
             {"pydocx-having-images.docx", "docx", "docx.Document"},
             {"openpyxl-libreoffice_nrt.xlsx", "openpyxl", "openpyxl.load_workbook"}}) {
        SCOPED_TRACE(file);
        TempDir dir;
        const std::string folder = (dir.path() / "folder").string();
        const std::string extension = fs::path(file).extension().string();  // openpyxl goes by it
        ASSERT_EQ(run({"unpack", (testDataDir() / "corpus" / file).string(), folder}).status, 0);
        for (const std::string level : {"0", "6"}) {
            SCOPED_TRACE("level " + level);
            const auto packed = [&](const std::string& jobs) { return dir.path() / ("jobs" + jobs + extension); };
            for (const std::string jobs : {"1", "3"}) {
                EXPECT_EQ(run({"pack", "--level", level, "--jobs", jobs, folder, packed(jobs).string()}),
                          (RunResult{0, "", ""}));
            }
            EXPECT_EQ(readFile(packed("1")), readFile(packed("3")));
            const fs::path back = dir.path() / ("back" + level);
            ASSERT_EQ(run({"unpack", packed("1").string(), back.string()}).status, 0);
            EXPECT_EQ(snapshotTree(back), snapshotTree(folder));
            EXPECT_NE(readsWithPython(module, call, packed("1")), 0);
            // libzip copies the stream the tool deflated (or the bytes it stores) as it is. Level 0
            // stores all; at 6 every XML part shrinks, and PNG images do not.
            for (const auto& [name, data] : readZipEntries(packed("1"), true)) {
                const opcdir::CompressedEntry expected = opcdir::compressEntry(readFile(back / name), std::stoi(level));
                EXPECT_EQ(data, expected.data) << name;
                const std::string type = name.substr(name.rfind('.') + 1);
                if (level == "0" || type == "xml" || type == "rels" || type == "png") {
                    EXPECT_EQ(expected.deflated, level == "6" && type != "png") << name;
                }
            }
        }
    }
}

}  // namespace
}  // namespace opc::test
