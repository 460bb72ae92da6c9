#include "OpcdirHarness.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

namespace opc::test {
namespace {

const std::string kTypes =
    "<?xml version=\"1.0\"?><Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
    "<Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>";

// A folder with an existing package "pkg" that a refused unpack --force must
// leave exactly as it was, and the archive "bad.zip".
class RefusedUnpack : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
        writeFile(dir.path() / "pkg" / "word" / "document.xml", "<old/>");
    }

    // Runs unpack of archive onto pkg and checks the refusal: exit status 1,
    // exactly this line on standard error and nothing changed in the folder.
    void expectRefused(const std::string& archive,
                       const std::string& message,
                       const std::vector<std::string>& options = {"--force"}) {
        writeBytes(dir.path() / "bad.zip", archive);
        const TreeSnapshot before = snapshotTree(dir.path());
        std::vector<std::string> arguments{"unpack"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.insert(arguments.end(), {"bad.zip", "pkg"});
        const RunResult result = runOpcdir(dir.path(), arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "opcdir: bad.zip: " + message + "\n");
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(snapshotTree(dir.path()), before);
    }

    std::string corpusFile(const std::string& name) {
        std::ifstream in(testDataDir() / "corpus" / name, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

    TempDir dir;
};

TEST(UnpackCorpus, EveryPackageBecomesAFolderOfItsEntries) {
    for (const auto& archive : corpusPackages()) {
        SCOPED_TRACE(archive.filename().string());
        TempDir dir;
        const RunResult result = runOpcdir(dir.path(), {"unpack", archive.string(), "pkg"});
        ASSERT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        TreeSnapshot expected;
        for (const auto& [name, bytes] : readZipEntries(archive)) {
            expected[name] = bytes;
            for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
                expected[name.substr(0, slash + 1)] = "";
            }
        }
        EXPECT_EQ(snapshotTree(dir.path() / "pkg"), expected);
        // Nothing but the package is left beside it: no staging folder.
        EXPECT_EQ(listFolder(dir.path()), std::vector<std::string>{"pkg"});
    }
}

TEST(UnpackTarget, ExistingEmptyFolderIsFilled) {
    TempDir dir;
    std::filesystem::create_directory(dir.path() / "pkg");
    writeBytes(dir.path() / "a.zip", rawZip({{"[Content_Types].xml", kTypes}, {"x.xml", "<x/>"}}));
    const RunResult result = runOpcdir(dir.path(), {"unpack", "a.zip", "pkg"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(snapshotTree(dir.path() / "pkg"), (TreeSnapshot{{"[Content_Types].xml", kTypes}, {"x.xml", "<x/>"}}));
}

TEST_F(RefusedUnpack, NonEmptyTargetWithoutForce) {
    writeBytes(dir.path() / "good.zip", rawZip({{"[Content_Types].xml", kTypes}, {"new.xml", "<new/>"}}));
    const TreeSnapshot before = snapshotTree(dir.path());
    const RunResult result = runOpcdir(dir.path(), {"unpack", "good.zip", "pkg"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "opcdir: pkg: already exists and is not an empty folder (use --force to replace it)\n");
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(RefusedUnpack, ForceReplacesTheWholeTarget) {
    writeBytes(dir.path() / "good.zip", rawZip({{"[Content_Types].xml", kTypes}, {"new.xml", "<new/>"}}));
    const RunResult result = runOpcdir(dir.path(), {"unpack", "--force", "good.zip", "pkg"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(snapshotTree(dir.path() / "pkg"), (TreeSnapshot{{"[Content_Types].xml", kTypes}, {"new.xml", "<new/>"}}));
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{"good.zip", "pkg"}));
}

TEST_F(RefusedUnpack, AbsoluteEntryName) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"/etc/evil", "x"}}),
                  "unsafe entry name '/etc/evil': absolute name");
}

TEST_F(RefusedUnpack, DotDotSegment) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"word/../../evil", "x"}}),
                  "unsafe entry name 'word/../../evil': '..' segment in name");
}

TEST_F(RefusedUnpack, DotSegment) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"./word/x.xml", "x"}}),
                  "unsafe entry name './word/x.xml': '.' segment in name");
}

TEST_F(RefusedUnpack, BackslashTrick) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"..\\..\\evil", "x"}}),
                  "unsafe entry name '..\\..\\evil': backslash in name");
}

TEST_F(RefusedUnpack, NulInName) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {std::string("word/a\0.xml", 11), "x"}}),
                  "unsafe entry name 'word/a\\x00.xml': NUL byte in name");
}

TEST_F(RefusedUnpack, UnsafeFolderEntry) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"../", ""}}),
                  "unsafe entry name '../': '..' segment in name");
}

TEST_F(RefusedUnpack, ReservedTrashFolder) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"[trash]/0001.dat", "x"}}),
                  "unsafe entry name '[trash]/0001.dat': reserved name '[trash]'");
}

TEST_F(RefusedUnpack, EmptySegmentFromCorpus) {
    expectRefused(corpusFile("malformed/nuget-PackageWithDoubleForwardSlash.1.0.0.nupkg"),
                  "unsafe entry name 'lib//malformedfile.txt': empty segment in name");
}

TEST_F(RefusedUnpack, DuplicateEntryFromCorpus) {
    expectRefused(corpusFile("malformed/poi-duplicate-filename.xlsx"), "duplicate entry 'xl/worksheets/sheet1.xml'");
}

TEST_F(RefusedUnpack, NamesThatDifferOnlyInCaseAreDuplicates) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"Word/A.xml", "1"}, {"word/a.xml", "2"}}),
                  "duplicate entry 'word/a.xml'");
}

TEST_F(RefusedUnpack, EntryThatIsAlsoAFolderFromCorpus) {
    expectRefused(corpusFile("malformed/poi-OPCCompliance_DerivedPartNameFAIL.docx"),
                  "entry 'word/document.xml' is also a folder of entry 'word/document.xml/image1.gif'");
}

TEST_F(RefusedUnpack, EntryThatIsAlsoAFolderEntry) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"media", "x"}, {"media/", ""}}),
                  "entry 'media' is also a folder of entry 'media/'");
}

TEST_F(RefusedUnpack, EmptyArchiveFromCorpus) {
    expectRefused(corpusFile("malformed/poi-invalid.xlsx"), "not a package: no '[Content_Types].xml' entry");
}

TEST_F(RefusedUnpack, ContentTypesOnlyBelowTheRoot) {
    expectRefused(rawZip({{"word/[Content_Types].xml", kTypes}}), "not a package: no '[Content_Types].xml' entry");
}

TEST_F(RefusedUnpack, NotAZipFile) {
    expectRefused("This is plain text, long enough to look for an end record in it.",
                  "not a ZIP archive, or truncated (no end of central directory)");
}

TEST_F(RefusedUnpack, TruncatedArchive) {
    const std::string whole = corpusFile("pydocx-test.docx");
    expectRefused(whole.substr(0, whole.size() / 2), "not a ZIP archive, or truncated (no end of central directory)");
}

TEST_F(RefusedUnpack, CorruptDataFoundWhileWriting) {
    // The damage lies inside word/document.xml's deflated data: it is only
    // found once earlier entries are written, and the target must survive.
    const std::string whole = corpusFile("pydocx-test.docx");
    std::string damaged = whole;
    const std::size_t at = damaged.find("word/document.xml") + 17 + 200;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x55);
    damaged[at + 1] = static_cast<char>(damaged[at + 1] ^ 0x55);
    writeBytes(dir.path() / "bad.zip", damaged);
    const TreeSnapshot before = snapshotTree(dir.path());
    const RunResult result = runOpcdir(dir.path(), {"unpack", "--force", "bad.zip", "pkg"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err.rfind("opcdir: bad.zip: corrupt entry 'word/document.xml': ", 0), 0u) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(RefusedUnpack, EntryExpandingPastTheDefaultRatio) {
    // Zeros deflate a little more than 1000 times.
    const std::string bomb = deflatedZip({{"[Content_Types].xml", kTypes}, {"zeros.bin", std::string(20 << 20, '\0')}});
    expectRefused(bomb, "entry 'zeros.bin' expands more than 1000 times (see --max-ratio)");
}

TEST_F(RefusedUnpack, RatioCheckedOnInflatedBytesWhenTheSizeLies) {
    std::string bomb = deflatedZip({{"[Content_Types].xml", kTypes}, {"zeros.bin", std::string(4 << 20, '\0')}});
    setDeclaredSize(bomb, "zeros.bin", 10);
    expectRefused(bomb, "entry 'zeros.bin' expands more than 100 times (see --max-ratio)",
                  {"--force", "--max-ratio", "100"});
}

TEST_F(RefusedUnpack, TotalCheckedOnInflatedBytesWhenTheSizeLies) {
    std::string bomb = deflatedZip({{"[Content_Types].xml", kTypes}, {"data.bin", std::string(2 << 20, 'a')}});
    setDeclaredSize(bomb, "data.bin", 10);
    expectRefused(bomb, "expands to more than the limit of 1048576 bytes (see --max-size)",
                  {"--force", "--max-size", "1M"});
}

TEST_F(RefusedUnpack, DeclaredTotalPastTheLimit) {
    expectRefused(rawZip({{"[Content_Types].xml", kTypes}, {"a.bin", std::string(3000, 'a')}}),
                  "expands to " + std::to_string(3000 + kTypes.size()) +
                      " bytes, more than the limit of 2048 bytes (see --max-size)",
                  {"--max-size", "2K"});
}

}  // namespace
}  // namespace opc::test
