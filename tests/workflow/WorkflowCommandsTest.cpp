#include "Commands.h"

#include "support/TempDir.h"
#include "support/ZipFixture.h"

#include <opccore/LocalFileSystemOps.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zip.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace opcdir {
namespace {

namespace fs = std::filesystem;
using opc::test::TempDir;
using opc::test::ZipEntries;

struct Result {
    int status;
    std::string out;
    std::string err;
    bool operator==(const Result& other) const {
        return status == other.status && out == other.out && err == other.err;
    }
};

std::ostream& operator<<(std::ostream& stream, const Result& result) {
    return stream << "status " << result.status << "\nout:\n" << result.out << "err:\n" << result.err;
}

Result run(const std::vector<std::string>& arguments) {
    opc::LocalFileSystemOps fileSystem;
    std::istringstream in;
    std::ostringstream out;
    std::ostringstream err;
    Io io{in, out, err, false};
    const int status = opcdir::run(arguments, io, fileSystem);
    return {status, out.str(), err.str()};
}

Result diff(const fs::path& from, const fs::path& to, bool text = false) {
    if (text) return run({"diff", "--text", from.string(), to.string()});
    return run({"diff", from.string(), to.string()});
}

Result check(const fs::path& package) { return run({"check", package.string()}); }

Result textconv(const fs::path& package) { return run({"textconv", package.string()}); }

// Entries in the order given, each stored, as a ZIP package file.
void writeZip(const fs::path& path, const ZipEntries& entries) {
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    ASSERT_NE(archive, nullptr);
    for (const auto& [name, bytes] : entries) {
        zip_source_t* source = zip_source_buffer(archive, bytes.data(), bytes.size(), 0);
        const zip_int64_t index = zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8);
        ASSERT_GE(index, 0);
        zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), ZIP_CM_STORE, 0);
    }
    ASSERT_EQ(zip_close(archive), 0);
}

std::string& entry(ZipEntries& entries, const std::string& name) {
    return std::find_if(entries.begin(), entries.end(), [&](const auto& e) { return e.first == name; })->second;
}

const fs::path kSmallDocx = opc::test::testDataDir() / "corpus" / "poi-TestCreatePackageOUTPUT.docx";

// Folder package on one side, ZIP package file on the other: the same four
// parts, then each kind of difference.
TEST(Diff, FolderAgainstZipReportsEachAddedRemovedAndChangedPart) {
    TempDir dir;
    opc::test::unzipToFolder(kSmallDocx, dir.path() / "folder");
    const ZipEntries original = opc::test::readZipEntries(kSmallDocx);

    ZipEntries reordered(original.rbegin(), original.rend());
    std::string& rels = entry(reordered, "_rels/.rels");
    const std::size_t first = rels.find("<Relationship ");
    const std::size_t second = rels.find("<Relationship ", first + 1);
    const std::size_t end = rels.find("</Relationships>");
    rels = rels.substr(0, first) + rels.substr(second, end - second) + rels.substr(first, second - first) +
           rels.substr(end);
    ZipEntries changed = original;
    std::string& document = entry(changed, "word/document.xml");
    document.replace(document.find("Hello"), 5, "Goodbye");
    ZipEntries added = original;
    added.emplace_back("docProps/app.xml", "<Properties/>");
    ZipEntries removed = original;
    removed.erase(
        std::find_if(removed.begin(), removed.end(), [](const auto& e) { return e.first == "docProps/core.xml"; }));

    const std::vector<std::pair<ZipEntries, Result>> cases = {
        {original, {0, "", ""}},
        {reordered, {0, "", ""}},
        {changed, {1, "changed /word/document.xml\n", ""}},
        {added, {1, "added /docProps/app.xml\n", ""}},
        {removed, {1, "removed /docProps/core.xml\n", ""}},
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const fs::path zip = dir.path() / ("case" + std::to_string(i) + ".docx");
        writeZip(zip, cases[i].first);
        EXPECT_EQ(diff(dir.path() / "folder", zip), cases[i].second) << "case " << i;
    }
    EXPECT_EQ(diff(dir.path() / "case2.docx", dir.path() / "folder", true),
              (Result{1,
                      "changed /word/document.xml\n--- a/word/document.xml\n+++ b/word/document.xml\n@@ -3,7 +3,7 @@\n"
                      "   <w:body>\n     <w:p>\n       <w:r>\n-        <w:t>Goodbye Open XML !</w:t>\n"
                      "+        <w:t>Hello Open XML !</w:t>\n       </w:r>\n     </w:p>\n   </w:body>\n",
                      ""}));
    EXPECT_EQ(
        diff(dir.path() / "folder", dir.path() / "missing.docx"),
        (Result{2, "",
                "opcdir: " + (dir.path() / "missing.docx").string() + ": cannot open: No such file or directory\n"}));
}

TEST(Diff, ContentTypesInAnotherOrderAreNoChangeAndNonXmlGetsNoTextDiff) {
    TempDir dir;
    const std::string types =
        "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/>"
        "<Override PartName=\"/a.xml\" ContentType=\"text/plain\"/></Types>";
    opc::test::writeFile(dir.path() / "a" / "[Content_Types].xml", types);
    opc::test::writeFile(dir.path() / "a" / "a.xml", "<a/>");
    opc::test::writeFile(dir.path() / "b" / "[Content_Types].xml",
                         "<Types><Override ContentType=\"text/plain\" PartName=\"/a.xml\"/>"
                         "<Default ContentType=\"application/xml\" Extension=\"xml\"/></Types>");
    opc::test::writeFile(dir.path() / "b" / "a.xml", "<a />");
    EXPECT_EQ(diff(dir.path() / "a", dir.path() / "b", true),
              (Result{1, "changed /a.xml\n", ""}));  // bytes differ, yet not as text/plain XML: no text diff
}

TEST(Check, SoundCorpusDocumentHasNoProblemAsZipOrFolder) {
    TempDir dir;
    const fs::path docx = opc::test::testDataDir() / "corpus" / "pydocx-test.docx";
    opc::test::unzipToFolder(docx, dir.path() / "folder");
    EXPECT_EQ(check(docx), (Result{0, "", ""}));
    EXPECT_EQ(check(dir.path() / "folder"), (Result{0, "", ""}));
}

TEST(Check, EachKindOfProblemIsOneLineNamingThePart) {
    TempDir dir;
    const fs::path package = dir.path() / "package";
    opc::test::writeFile(
        package / "[Content_Types].xml",
        "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/>"
        "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
        "<Override PartName=\"/gone.xml\" ContentType=\"application/xml\"/></Types>");
    opc::test::writeFile(package / "_rels" / ".rels",
                         "<Relationships><Relationship Id=\"rId1\" Target=\"word/doc.xml\"/>"
                         "<Relationship Id=\"rId2\" Target=\"/word/media/../missing.png#x\"/>"
                         "<Relationship Id=\"rId3\" Target=\"http://example.com/\" TargetMode=\"External\"/>"
                         "</Relationships>");
    opc::test::writeFile(package / "word" / "doc.xml", "<doc/>");
    opc::test::writeFile(package / "word" / "Doc.xml", "<doc/>");
    opc::test::writeFile(package / "word" / "_rels" / "doc.xml.rels", "<Relationships>");
    opc::test::writeFile(package / "data.bin", "1");
    opc::test::writeFile(package / "a b.xml", "<a/>");
    opc::test::writeFile(package / "dots." / "x.xml", "<a/>");
    opc::test::writeFile(package / "[trash]" / "old.bin", "ignored");
    fs::create_symlink("word/doc.xml", package / "link.xml");
    ASSERT_EQ(::mkfifo((package / "pipe.xml").c_str(), 0600), 0);

    EXPECT_EQ(check(package),
              (Result{1,
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
}

TEST(Check, ProblemsOfZipFilesFromOthers) {
    const fs::path malformed = opc::test::testDataDir() / "corpus" / "malformed";
    EXPECT_EQ(check(malformed / "poi-duplicate-filename.xlsx"),
              (Result{1, "/xl/worksheets/sheet1.xml: appears more than once\n", ""}));
    EXPECT_EQ(check(malformed / "poi-invalid.xlsx"),
              (Result{1, "/[Content_Types].xml: missing: every package needs it\n", ""}));
    TempDir dir;
    writeZip(dir.path() / "bad.docx", {{"[Content_Types].xml", "<Types><Default"}, {"a.xml", "<a/>"}});
    EXPECT_EQ(check(dir.path() / "bad.docx"),
              (Result{1, "/[Content_Types].xml: malformed XML: Error parsing start element tag at byte 14\n", ""}));
}

TEST(Textconv, EachPartUnderItsNameXmlPrettyOthersAsSizeAndDigest) {
    TempDir dir;
    const fs::path package = dir.path() / "package";
    opc::test::writeFile(package / "[Content_Types].xml",
                         "<Types><Override PartName=\"/b.xml\" ContentType=\"x/y+xml\"/><Default Extension=\"png\" "
                         "ContentType=\"image/png\"/></Types>");
    opc::test::writeFile(package / "b.xml", "<b><c>t</c></b>");
    opc::test::writeFile(package / "i.png", "");
    opc::test::writeFile(package / "z.xml", "<z>");
    EXPECT_EQ(textconv(package),
              (Result{0,
                      "== /[Content_Types].xml\n<Types>\n  <Default ContentType=\"image/png\" Extension=\"png\" />\n"
                      "  <Override ContentType=\"x/y+xml\" PartName=\"/b.xml\" />\n</Types>\n"
                      "== /b.xml (x/y+xml)\n<b>\n  <c>t</c>\n</b>\n"
                      "== /i.png (image/png): 0 bytes, SHA-256 "
                      "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\n"
                      "== /z.xml: malformed XML: Start-end tags mismatch at byte 2; 3 bytes, SHA-256 "
                      "5317e054d6fa2186f5c1c016d94a95c1bce4b30346c11097d6c77797d6adf71e\n",
                      ""}));
}

}  // namespace
}  // namespace opcdir

namespace opcdir {
namespace {

std::string shellQuoted(const std::string& word) {
    std::string out = "'";
    for (const char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// git runs the built tool as the textconv driver the README tells users to
// configure.
TEST(Textconv, GitDiffShowsWhatChangedInsideADocx) {
    if (std::system("git --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "git is not installed";
    TempDir dir;
    const fs::path repo = dir.path() / "repo";
    fs::create_directories(repo);
    opc::test::writeFile(repo / ".gitattributes", "*.docx diff=opc\n");
    fs::copy_file(kSmallDocx, repo / "report.docx");
    const std::string git = "cd " + shellQuoted(repo.string()) + " && HOME=" + shellQuoted(dir.path().string()) +
                            " GIT_CONFIG_NOSYSTEM=1 git ";
    const std::string setUp = git + "init -q && " + git + "config user.name t && " + git + "config user.email t@t && " +
                              git + "config diff.opc.textconv " + shellQuoted(shellQuoted(OPCDIR_PATH) + " textconv") +
                              " && " + git + "add . && " + git + "commit -q -m one";
    ASSERT_EQ(std::system(setUp.c_str()), 0);

    ZipEntries entries = opc::test::readZipEntries(kSmallDocx);
    std::string& document = entry(entries, "word/document.xml");
    document.replace(document.find("Hello"), 5, "Goodbye");
    writeZip(repo / "report.docx", entries);
    ASSERT_EQ(std::system((git + "diff --no-color > ../diff.txt").c_str()), 0);
    std::string output = opc::test::readFile(dir.path() / "diff.txt");
    // The index line names blobs that hold the archive's timestamps.
    const std::size_t index = output.find("index ");
    ASSERT_NE(index, std::string::npos) << output;
    output.erase(index, output.find('\n', index) + 1 - index);
    EXPECT_EQ(output,
              "diff --git a/report.docx b/report.docx\n--- a/report.docx\n+++ b/report.docx\n"
              "@@ -24,7 +24,7 @@\n   <w:body>\n     <w:p>\n       <w:r>\n-        <w:t>Hello Open XML !</w:t>\n"
              "+        <w:t>Goodbye Open XML !</w:t>\n       </w:r>\n     </w:p>\n   </w:body>\n");
}

}  // namespace
}  // namespace opcdir
