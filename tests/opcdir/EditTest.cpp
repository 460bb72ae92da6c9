#include "OpcdirHarness.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <gtest/gtest.h>

namespace opc::test {
namespace {

const std::string kCorpusDocx = "pydocx-test.docx";

// A corpus document unpacked by the tool into "doc".
class EditCorpusPackage : public ::testing::Test {
protected:
    void SetUp() override {
        const RunResult result =
            runOpcdir(dir.path(), {"unpack", (testDataDir() / "corpus" / kCorpusDocx).string(), "doc"});
        ASSERT_EQ(result.status, 0) << result.err;
        before = snapshotTree(dir.path());
    }

    // The command fails with exactly this line and changes nothing.
    void expectRefused(const std::vector<std::string>& arguments, const std::string& message, int status = 1) {
        const RunResult result = runOpcdir(dir.path(), arguments);
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.err, message);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(snapshotTree(dir.path()), before);
    }

    TempDir dir;
    TreeSnapshot before;
};

TEST_F(EditCorpusPackage, CatWritesThePartsBytes) {
    const RunResult result = runOpcdir(dir.path(), {"cat", "doc", "/word/document.xml"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, before.at("doc/word/document.xml"));
    // The leading "/" may be left out.
    EXPECT_EQ(runOpcdir(dir.path(), {"cat", "doc", "word/document.xml"}).out, result.out);
    EXPECT_EQ(runOpcdir(dir.path(), {"cat", "doc", "[Content_Types].xml"}).out, before.at("doc/[Content_Types].xml"));
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(EditCorpusPackage, PutReplacesAPartFromAFile) {
    writeFile(dir.path() / "new.xml", "<w:document>replaced</w:document>");
    before = snapshotTree(dir.path());
    const RunResult result = runOpcdir(dir.path(), {"put", "doc", "word/document.xml", "new.xml"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    TreeSnapshot expected = before;
    expected["doc/word/document.xml"] = "<w:document>replaced</w:document>";
    EXPECT_EQ(snapshotTree(dir.path()), expected);
}

TEST_F(EditCorpusPackage, PutCreatesAPartFromStandardInput) {
    const std::string bytes("binary\0data\xff", 12);
    const RunResult result = runOpcdir(dir.path(), {"put", "doc", "/customXml/item2.xml"}, bytes);
    EXPECT_EQ(result.status, 0) << result.err;
    TreeSnapshot expected = before;
    expected["doc/customXml/item2.xml"] = bytes;
    EXPECT_EQ(snapshotTree(dir.path()), expected);
    EXPECT_EQ(runOpcdir(dir.path(), {"cat", "doc", "customXml/item2.xml"}).out, bytes);
}

TEST_F(EditCorpusPackage, PutOfAnEmptyInputEmptiesThePart) {
    EXPECT_EQ(runOpcdir(dir.path(), {"put", "doc", "word/webSettings.xml", "-"}).status, 0);
    TreeSnapshot expected = before;
    expected["doc/word/webSettings.xml"] = "";
    EXPECT_EQ(snapshotTree(dir.path()), expected);
}

TEST_F(EditCorpusPackage, RmDeletesPartsAndTheirEmptyFolders) {
    const RunResult result = runOpcdir(dir.path(), {"rm", "doc", "/customXml/item1.xml", "customXml/itemProps1.xml",
                                                    "/customXml/_rels/item1.xml.rels"});
    EXPECT_EQ(result.status, 0) << result.err;
    TreeSnapshot expected = before;
    for (const char* gone : {"doc/customXml/", "doc/customXml/item1.xml", "doc/customXml/itemProps1.xml",
                             "doc/customXml/_rels/", "doc/customXml/_rels/item1.xml.rels"}) {
        expected.erase(gone);
    }
    EXPECT_EQ(snapshotTree(dir.path()), expected);
}

TEST_F(EditCorpusPackage, RmDeletesNothingWhenOnePartIsMissing) {
    expectRefused({"rm", "doc", "word/styles.xml", "word/missing.xml"}, "opcdir: doc: no part '/word/missing.xml'\n");
}

TEST_F(EditCorpusPackage, RmRefusesTheContentTypesPart) {
    expectRefused({"rm", "doc", "[Content_Types].xml"},
                  "opcdir: doc: cannot remove '/[Content_Types].xml': every package needs it\n");
}

TEST_F(EditCorpusPackage, InvalidPartNamesAreRefused) {
    writeFile(dir.path() / "in.txt", "x");
    before = snapshotTree(dir.path());
    expectRefused({"put", "doc", "word/../../escape.xml", "in.txt"},
                  "opcdir: doc: invalid part name 'word/../../escape.xml': '..' segment in name\n");
    expectRefused({"put", "doc", "word//x.xml", "in.txt"},
                  "opcdir: doc: invalid part name 'word//x.xml': empty segment in name\n");
    expectRefused({"put", "doc", "word/", "in.txt"}, "opcdir: doc: invalid part name 'word/': name ends with '/'\n");
    expectRefused({"put", "doc", "a\\b", "in.txt"}, "opcdir: doc: invalid part name 'a\\b': backslash in name\n");
    expectRefused({"put", "doc", "/[trash]/x", "in.txt"},
                  "opcdir: doc: invalid part name '/[trash]/x': reserved name '[trash]'\n");
    expectRefused({"cat", "doc", "/"}, "opcdir: doc: invalid part name '/': empty name\n");
    expectRefused({"rm", "doc", "./word/styles.xml"},
                  "opcdir: doc: invalid part name './word/styles.xml': '.' segment in name\n");
}

TEST_F(EditCorpusPackage, PutRefusesPartsThatClashWithExistingOnes) {
    writeFile(dir.path() / "in.txt", "x");
    before = snapshotTree(dir.path());
    expectRefused(
        {"put", "doc", "word/document.xml/image.png", "in.txt"},
        "opcdir: doc: part '/word/document.xml' would be the folder of part '/word/document.xml/image.png'\n");
    expectRefused({"put", "doc", "word/theme", "in.txt"},
                  "opcdir: doc: part '/word/theme' would be the folder of part '/word/theme/theme1.xml'\n");
    expectRefused({"put", "doc", "WORD/Document.XML", "in.txt"},
                  "opcdir: doc: part '/WORD/Document.XML' differs only in case from '/word/document.xml'\n");
}

TEST_F(EditCorpusPackage, MissingPartsAndInputsAreRefused) {
    expectRefused({"cat", "doc", "word/nothing.xml"}, "opcdir: doc: no part '/word/nothing.xml'\n");
    expectRefused({"put", "doc", "word/document.xml", "absent.xml"}, "opcdir: absent.xml: No such file or directory\n");
    expectRefused({"put", "doc", "word/document.xml", "doc"}, "opcdir: doc: is a folder\n");
}

TEST_F(EditCorpusPackage, FoldersThatAreNoPackagesAreRefused) {
    writeFile(dir.path() / "plain" / "a.txt", "a");
    before = snapshotTree(dir.path());
    expectRefused({"ls", "plain"}, "opcdir: plain: not a package: no [Content_Types].xml\n");
    expectRefused({"ls", "missing"}, "opcdir: missing: no such package folder\n");
    expectRefused({"rm", "plain/a.txt", "x"}, "opcdir: plain/a.txt: not a folder\n");
    expectRefused({"put", "plain", "a.txt", "-"}, "opcdir: plain: not a package: no [Content_Types].xml\n");
}

TEST(EditSmallPackage, LsShowsSizesTypesAndJson) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml",
              "<?xml version=\"1.0\"?>\n<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
              "<Default Extension=\"XML\" ContentType=\"application/xml\"/>"
              "<!-- <Default Extension=\"bin\" ContentType=\"commented/out\"/> -->"
              "<Override PartName=\"/Word/Document.xml\" ContentType=\"text/x-doc&amp;main\"/>"
              "<Override PartName='/%C3%A9t%C3%A9.txt' ContentType='text/plain'/></Types>");
    writeFile(dir.path() / "pkg" / "word" / "document.xml", "<doc/>");
    writeFile(dir.path() / "pkg" / "word" / "styles.xml", "<styles>..</styles>");
    writeFile(dir.path() / "pkg" / "\xc3\xa9t\xc3\xa9.txt", "summer");
    writeFile(dir.path() / "pkg" / "data.bin", std::string(1234, 'x'));
    const TreeSnapshot before = snapshotTree(dir.path());

    const RunResult plain = runOpcdir(dir.path(), {"ls", "pkg"});
    EXPECT_EQ(plain.status, 0);
    EXPECT_EQ(plain.out,
              " 366  /[Content_Types].xml\n"
              "1234  /data.bin\n"
              "   6  /word/document.xml\n"
              "  19  /word/styles.xml\n"
              "   6  /\xc3\xa9t\xc3\xa9.txt\n");

    const RunResult long_ = runOpcdir(dir.path(), {"ls", "--long", "pkg"});
    EXPECT_EQ(long_.out,
              " 366  -                /[Content_Types].xml\n"
              "1234  -                /data.bin\n"
              "   6  text/x-doc&main  /word/document.xml\n"
              "  19  application/xml  /word/styles.xml\n"
              "   6  text/plain       /\xc3\xa9t\xc3\xa9.txt\n");

    const RunResult json = runOpcdir(dir.path(), {"ls", "pkg", "--json"});
    EXPECT_EQ(json.out,
              "{\"package\": \"pkg\", \"parts\": [\n"
              "  {\"name\": \"/[Content_Types].xml\", \"size\": 366, \"contentType\": null},\n"
              "  {\"name\": \"/data.bin\", \"size\": 1234, \"contentType\": null},\n"
              "  {\"name\": \"/word/document.xml\", \"size\": 6, \"contentType\": \"text/x-doc&main\"},\n"
              "  {\"name\": \"/word/styles.xml\", \"size\": 19, \"contentType\": \"application/xml\"},\n"
              "  {\"name\": \"/\xc3\xa9t\xc3\xa9.txt\", \"size\": 6, \"contentType\": \"text/plain\"}\n"
              "]}\n");
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST(EditSmallPackage, JsonEscapesQuotesControlsAndBytesThatAreNotUtf8) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "pkg" / "a\"b\\c\x01\xff.bin", "x");
    const RunResult json = runOpcdir(dir.path(), {"ls", "--json", "pkg"});
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(json.out,
              "{\"package\": \"pkg\", \"parts\": [\n"
              "  {\"name\": \"/[Content_Types].xml\", \"size\": 8, \"contentType\": null},\n"
              "  {\"name\": \"/a\\\"b\\\\c\\u0001\\udcff.bin\", \"size\": 1, \"contentType\": null}\n"
              "]}\n");
}

TEST(NewPackage, HoldsJustAMinimalContentTypesStream) {
    TempDir dir;
    const RunResult result = runOpcdir(dir.path(), {"new", "fresh"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(
        snapshotTree(dir.path()),
        (TreeSnapshot{
            {"fresh/", ""},
            {"fresh/[Content_Types].xml",
             "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
             "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
             "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
             "<Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>\n"}}));
}

TEST(NewPackage, RefusesAnythingButAnEmptyFolder) {
    TempDir dir;
    writeFile(dir.path() / "full" / "keep.txt", "keep");
    writeFile(dir.path() / "file", "keep");
    std::filesystem::create_directory(dir.path() / "empty");
    const TreeSnapshot before = snapshotTree(dir.path());
    for (const std::string target : {"full", "file"}) {
        const RunResult result = runOpcdir(dir.path(), {"new", target});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "opcdir: " + target + ": already exists and is not an empty folder\n");
        EXPECT_EQ(snapshotTree(dir.path()), before);
    }
    EXPECT_EQ(runOpcdir(dir.path(), {"new", "empty"}).status, 0);
    EXPECT_EQ(listFolder(dir.path() / "empty"), std::vector<std::string>{"[Content_Types].xml"});
}

}  // namespace
}  // namespace opc::test
