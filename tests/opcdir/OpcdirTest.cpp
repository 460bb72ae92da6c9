#include "OpcdirHarness.h"
#include "support/FaultyFileSystemOps.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <set>
#include <sstream>

namespace opc::test {
namespace {

TEST(CommandLine, HelpForTheToolAndEachCommandAndTheProjectVersion) {
    TempDir dir;
    const RunResult version = runOpcdir(dir.path(), {"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "opcdir " OPC_PROJECT_VERSION "\n");
    const RunResult tool = runOpcdir(dir.path(), {"--help"});
    EXPECT_EQ(tool.status, 0);
    EXPECT_EQ(tool.out.rfind("usage: opcdir COMMAND [OPTIONS] ARGUMENTS\n", 0), 0u);
    for (const std::string command : {"ls", "cat", "put", "rm", "new", "unpack", "pack", "recover"}) {
        SCOPED_TRACE(command);
        EXPECT_NE(tool.out.find("\n  " + command + " "), std::string::npos);
        const RunResult help = runOpcdir(dir.path(), {command, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_EQ(help.out.rfind("usage: opcdir " + command + " ", 0), 0u) << help.out;
    }
}

// A corpus document unpacked by the tool into "doc", beside an input file and
// a folder that is no package.
class EditCorpusPackage : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::copy_file(testDataDir() / "corpus" / "pydocx-test.docx", dir.path() / "doc.docx");
        const RunResult result = runOpcdir(dir.path(), {"unpack", "doc.docx", "doc"});
        ASSERT_EQ(result.status, 0) << result.err;
        writeFile(dir.path() / "in.xml", "<w:document>replaced</w:document>");
        writeFile(dir.path() / "plain" / "a.txt", "a");
        writeFile(dir.path() / "odd" / "[Content_Types].xml" / "a.xml", "a");
        before = snapshotTree(dir.path());
    }

    // Runs a command that must succeed silently and leave `before` with these
    // entries set and those gone.
    void expectTree(const std::vector<std::string>& arguments,
                    const TreeSnapshot& set,
                    const std::vector<std::string>& gone = {},
                    const std::string& input = "") {
        const RunResult result = runOpcdir(dir.path(), arguments, input);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err + result.out, "");
        for (const auto& [name, bytes] : set) before[name] = bytes;
        for (const std::string& name : gone) EXPECT_EQ(before.erase(name), 1u) << name;
        EXPECT_EQ(snapshotTree(dir.path()), before);
    }

    TempDir dir;
    TreeSnapshot before;
};

TEST_F(EditCorpusPackage, CatPutAndRmReadAndChangeJustTheirParts) {
    EXPECT_EQ(runOpcdir(dir.path(), {"cat", "doc", "/word/document.xml"}).out, before.at("doc/word/document.xml"));
    EXPECT_EQ(runOpcdir(dir.path(), {"cat", "doc", "[Content_Types].xml"}).out, before.at("doc/[Content_Types].xml"));
    expectTree({"put", "doc", "word/document.xml", "in.xml"}, {{"doc/word/document.xml", before.at("in.xml")}});
    const std::string binary("binary\0data\xff", 12);
    expectTree({"put", "doc", "/customXml/item2.xml"}, {{"doc/customXml/item2.xml", binary}}, {}, binary);
    EXPECT_EQ(runOpcdir(dir.path(), {"cat", "doc", "customXml/item2.xml"}).out, binary);
    expectTree({"put", "doc", "word/webSettings.xml", "-"}, {{"doc/word/webSettings.xml", ""}});
    // Folders left empty go with their last part.
    expectTree({"rm", "doc", "/customXml/item1.xml", "customXml/itemProps1.xml", "/customXml/_rels/item1.xml.rels"}, {},
               {"doc/customXml/_rels/", "doc/customXml/_rels/item1.xml.rels", "doc/customXml/item1.xml",
                "doc/customXml/itemProps1.xml"});
    expectTree({"rm", "doc", "customXml/item2.xml"}, {}, {"doc/customXml/", "doc/customXml/item2.xml"});
}

TEST_F(EditCorpusPackage, LsListsEveryPartWithSizeAndContentType) {
    const RunResult json = runOpcdir(dir.path(), {"ls", "--json", "doc"});
    EXPECT_EQ(json.status, 0);
    std::size_t parts = 0;
    for (const auto& [name, bytes] : before) {
        if (name.rfind("doc/", 0) != 0 || name.back() == '/') continue;
        ++parts;
        const std::string line = "\n  {\"name\": \"" + name.substr(3) + "\", \"size\": " + std::to_string(bytes.size());
        EXPECT_NE(json.out.find(line), std::string::npos) << name;
    }
    EXPECT_EQ(parts, 17u);
    EXPECT_EQ(std::count(json.out.begin(), json.out.end(), '\n'), 19);
    EXPECT_NE(runOpcdir(dir.path(), {"ls", "--long", "doc"})
                  .out.find("\n 1820  application/vnd.openxmlformats-officedocument.wordprocessingml.document.main+xml"
                            "  /word/document.xml\n"),
              std::string::npos);
    EXPECT_EQ(runOpcdir(dir.path(), {"ls", "doc"}).out.rfind(" 1739  /[Content_Types].xml\n  735  /_rels/.rels\n", 0),
              0u);
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(EditCorpusPackage, RefusalsAreOneLineWithStatusOneOrTwoForUsageAndChangeNothing) {
    const std::vector<std::tuple<int, std::vector<std::string>, std::string>> cases = {
        {2, {}, "no command given (see 'opcdir --help')"},
        {2, {"frob"}, "unknown command 'frob' (see 'opcdir --help')"},
        {2, {"ls"}, "ls: missing operand (see 'opcdir ls --help')"},
        {2, {"put", "doc", "a", "b", "c"}, "put: unexpected operand 'c' (see 'opcdir put --help')"},
        {2, {"unpack", "a.zip", "out", "--max-size"}, "unpack: --max-size needs a value (see 'opcdir unpack --help')"},
        {2,
         {"unpack", "--max-size", "4X", "a.zip", "out"},
         "unpack: --max-size needs a byte count such as 4096, 64K or 4G, not '4X'"},
        {2, {"unpack", "--max-ratio", "0", "a.zip", "out"}, "unpack: --max-ratio must be at least 1"},
        {1, {"rm", "doc", "word/styles.xml", "word/missing.xml"}, "doc: no part '/word/missing.xml'"},
        {1, {"rm", "doc", "word/styles.xml", "/word/styles.xml"}, "doc: no part '/word/styles.xml'"},
        {1, {"rm", "doc", "[Content_Types].xml"}, "doc: cannot remove '/[Content_Types].xml': every package needs it"},
        {1, {"cat", "doc", "word/nothing.xml"}, "doc: no part '/word/nothing.xml'"},
        {1, {"put", "doc", "a/../x", "in.xml"}, "doc: invalid part name 'a/../x': '..' segment in name"},
        {1, {"put", "doc", "word//x.xml", "in.xml"}, "doc: invalid part name 'word//x.xml': empty segment in name"},
        {1, {"put", "doc", "a\\b", "in.xml"}, "doc: invalid part name 'a\\b': backslash in name"},
        {1, {"rm", "doc", "/[trash]/x"}, "doc: invalid part name '/[trash]/x': reserved name '[trash]'"},
        {1,
         {"put", "doc", "word/theme", "in.xml"},
         "doc: part '/word/theme' would be the folder of part '/word/theme/theme1.xml'"},
        {1,
         {"put", "doc", "word/document.xml/a.png", "in.xml"},
         "doc: part '/word/document.xml' would be the folder of part '/word/document.xml/a.png'"},
        {1,
         {"put", "doc", "WORD/Document.XML", "in.xml"},
         "doc: part '/WORD/Document.XML' differs only in case from '/word/document.xml'"},
        {1, {"put", "doc", "word/document.xml", "absent.xml"}, "absent.xml: No such file or directory"},
        {1, {"put", "doc", "word/document.xml", "doc"}, "doc: is a folder"},
        {1, {"ls", "plain"}, "plain: not a package: no [Content_Types].xml"},
        {1, {"cat", "odd", "[Content_Types].xml/a.xml"}, "odd: not a package: no [Content_Types].xml"},
        {1, {"pack", "missing", "out.zip"}, "missing: no such package folder"},
        {1, {"rm", "plain/a.txt", "x"}, "plain/a.txt: not a folder"},
        {1, {"new", "doc"}, "doc: already exists and is not an empty folder"},
        {1,
         {"unpack", "doc.docx", "doc"},
         "doc: already exists and is not an empty folder (use --force to replace it)"},
        {1, {"pack", "doc", "doc/inside.zip"}, "doc/inside.zip: lies inside the package doc"},
        {1, {"pack", "doc", "plain"}, "plain: is a folder"},
        {1, {"pack", "doc", "nowhere/out.zip"}, "nowhere/out.zip: its folder does not exist"},
        {1, {"pack", "plain", "out.zip"}, "plain: not a package: no [Content_Types].xml"},
    };
    for (const auto& [status, arguments, message] : cases) {
        SCOPED_TRACE(message);
        expectRefused(dir.path(), arguments, message, status);
    }
}

TEST(EditSmallPackage, LsGivesTypesByOverrideOrDefaultAndEscapesJson) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml",
              "<Types><Default Extension=\"XML\" ContentType=\"application/xml\"/>"
              "<!-- <Default Extension=\"bin\" ContentType=\"commented/out\"/> -->"
              "<Override PartName=\"/Word/Document.xml\" ContentType=\"text/x-doc&amp;main\"/>"
              "<Override PartName='/%C3%A9t%C3%A9.txt' ContentType='text/plain'/></Types>");
    writeFile(dir.path() / "pkg" / "word" / "document.xml", "<doc/>");
    writeFile(dir.path() / "pkg" / "word" / "styles.xml", "<styles>..</styles>");
    writeFile(dir.path() / "pkg" / "\xc3\xa9t\xc3\xa9.txt", "summer");
    writeFile(dir.path() / "pkg" / "a\"b\\c\x01\xff.bin", std::string(1234, 'x'));
    EXPECT_EQ(runOpcdir(dir.path(), {"ls", "--json", "pkg"}).out,
              "{\"package\": \"pkg\", \"parts\": [\n"
              "  {\"name\": \"/[Content_Types].xml\", \"size\": 275, \"contentType\": null},\n"
              "  {\"name\": \"/a\\\"b\\\\c\\u0001\\udcff.bin\", \"size\": 1234, \"contentType\": null},\n"
              "  {\"name\": \"/word/document.xml\", \"size\": 6, \"contentType\": \"text/x-doc&main\"},\n"
              "  {\"name\": \"/word/styles.xml\", \"size\": 19, \"contentType\": \"application/xml\"},\n"
              "  {\"name\": \"/\xc3\xa9t\xc3\xa9.txt\", \"size\": 6, \"contentType\": \"text/plain\"}\n"
              "]}\n");

    // A stream cut short still gives what came before the cut; one in UTF-16
    // reads as well as one in UTF-8.
    std::string utf16 = "\xff\xfe";
    for (const char c : std::string("<Types><Default Extension='bin' ContentType='application/x-bin'/></Types>"))
        utf16 += std::string(1, c) + '\0';
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"<Types><Override PartName=\"/word/document.xml\" ContentType=\"text/x-doc\"/>"
         "<Default Extension=\"xml\" ContentType=\"application/xml\"/><Default Extension=\"txt\" Cont",
         "-  -  text/x-doc  application/xml  -"},
        {utf16, "-  application/x-bin  -  -  -"},
    };
    for (const auto& [types, expected] : cases) {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", types);
        std::string listed;
        std::istringstream lines(runOpcdir(dir.path(), {"ls", "--long", "pkg"}).out);
        for (std::string size, type, name; lines >> size >> type >> name;)
            listed += (listed.empty() ? "" : "  ") + type;
        EXPECT_EQ(listed, expected) << types;
    }
}

TEST(NewPackage, HoldsJustAMinimalContentTypesStream) {
    TempDir dir;
    ASSERT_EQ(runOpcdir(dir.path(), {"new", "fresh"}).status, 0);
    EXPECT_EQ(snapshotTree(dir.path() / "fresh"),
              (TreeSnapshot{{"[Content_Types].xml",
                             "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
                             "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
                             "<Default Extension=\"rels\" "
                             "ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
                             "<Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>\n"}}));
}

const std::string kTypes = "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>";

std::string corpusFile(const std::string& name) { return readFile(testDataDir() / "corpus" / name); }

// The archive the tool packs from these files, each deflated.
std::string packed(const TreeSnapshot& files) {
    TempDir dir;
    for (const auto& [name, bytes] : files) writeFile(dir.path() / "pkg" / name, bytes);
    EXPECT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "out.zip"}).status, 0);
    return readFile(dir.path() / "out.zip");
}

TEST(UnpackPackCorpus, EveryPackageRoundTripsEntryForEntryAndPacksTheSameTwice) {
    for (const auto& archive : corpusPackages()) {
        SCOPED_TRACE(archive.filename().string());
        TempDir dir;
        const RunResult unpacked = runOpcdir(dir.path(), {"unpack", archive.string(), "pkg"});
        ASSERT_EQ(unpacked.status, 0) << unpacked.err;
        ZipEntries original = readZipEntries(archive);
        TreeSnapshot expected;
        for (const auto& [name, bytes] : original) {
            expected[name] = bytes;
            for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1))
                expected[name.substr(0, slash + 1)] = "";
        }
        EXPECT_EQ(snapshotTree(dir.path() / "pkg"), expected);

        writeFile(dir.path() / "first.zip", "replaced by pack");
        const RunResult first = runOpcdir(dir.path(), {"pack", "pkg", "first.zip"});
        ASSERT_EQ(first.status, 0) << first.err;
        EXPECT_EQ(first.err, "");
        // A later modification time must not show in the archive.
        std::filesystem::last_write_time(dir.path() / "pkg" / "[Content_Types].xml",
                                         std::filesystem::file_time_type::clock::now() + std::chrono::hours(24));
        ASSERT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "second.zip"}).status, 0);
        EXPECT_EQ(readFile(dir.path() / "first.zip"), readFile(dir.path() / "second.zip"));
        EXPECT_EQ(listFolder(dir.path()),
                  (std::vector<std::string>{".opc-lock-pkg", "first.zip", "pkg", "second.zip"}));

        ZipEntries repacked = readZipEntries(dir.path() / "first.zip");
        ASSERT_FALSE(repacked.empty());
        EXPECT_EQ(repacked.front().first, "[Content_Types].xml");
        EXPECT_TRUE(std::is_sorted(repacked.begin() + 1, repacked.end()));
        std::sort(original.begin(), original.end());
        std::sort(repacked.begin(), repacked.end());
        EXPECT_EQ(repacked, original);
    }
}

// An existing package "pkg" beside the archive to unpack onto it.
class UnpackOntoPackage : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
        writeFile(dir.path() / "pkg" / "word" / "document.xml", "<old/>");
        writeFile(dir.path() / "new.zip", rawZip({{"[Content_Types].xml", kTypes}, {"new.xml", "<new/>"}}));
    }
    TempDir dir;
};

TEST_F(UnpackOntoPackage, ForceReplacesTheWholeTarget) {
    const RunResult result = runOpcdir(dir.path(), {"unpack", "--force", "new.zip", "pkg"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(snapshotTree(dir.path() / "pkg"), (TreeSnapshot{{"[Content_Types].xml", kTypes}, {"new.xml", "<new/>"}}));
    EXPECT_EQ(listFolder(dir.path()), (std::vector<std::string>{".opc-lock-pkg", "new.zip", "pkg"}));
}

TEST_F(UnpackOntoPackage, BadArchivesAreRefusedBeforeTheTargetIsTouched) {
    const auto refuse = [&](const std::string& archive, const std::string& message,
                            const std::vector<std::string>& options = {}) {
        SCOPED_TRACE(message);
        writeFile(dir.path() / "bad.zip", archive);
        std::vector<std::string> arguments{"unpack", "--force"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.insert(arguments.end(), {"bad.zip", "pkg"});
        expectRefused(dir.path(), arguments, "bad.zip: " + message);
    };
    const auto with = [](const std::string& name, const std::string& data = "x") {
        return rawZip({{"[Content_Types].xml", kTypes}, {name, data}});
    };
    const std::string docx = corpusFile("pydocx-test.docx");
    const std::string noZip = "not a ZIP archive, or truncated (no end of central directory)";
    const std::string noTypes = "not a package: no '[Content_Types].xml' entry";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {with("/etc/evil"), "unsafe entry name '/etc/evil': absolute name"},
        {with("word/../../evil"), "unsafe entry name 'word/../../evil': '..' segment in name"},
        {with("../", ""), "unsafe entry name '../': '..' segment in name"},
        {with("..\\..\\evil"), "unsafe entry name '..\\..\\evil': backslash in name"},
        {with(std::string("word/a\0.xml", 11)), "unsafe entry name 'word/a\\x00.xml': NUL byte in name"},
        {with("[trash]/0001.dat"), "unsafe entry name '[trash]/0001.dat': reserved name '[trash]'"},
        {corpusFile("malformed/nuget-PackageWithDoubleForwardSlash.1.0.0.nupkg"),
         "unsafe entry name 'lib//malformedfile.txt': empty segment in name"},
        {corpusFile("malformed/poi-duplicate-filename.xlsx"), "duplicate entry 'xl/worksheets/sheet1.xml'"},
        {rawZip({{"[Content_Types].xml", kTypes}, {"Word/A.xml", "1"}, {"word/a.xml", "2"}}),
         "duplicate entry 'word/a.xml'"},
        {corpusFile("malformed/poi-OPCCompliance_DerivedPartNameFAIL.docx"),
         "entry 'word/document.xml' is also a folder of entry 'word/document.xml/image1.gif'"},
        {corpusFile("malformed/poi-invalid.xlsx"), noTypes},
        {rawZip({{"word/[Content_Types].xml", kTypes}}), noTypes},
        {"This is plain text, long enough to look for an end record in it.", noZip},
        {docx.substr(0, docx.size() / 2), noZip},
        // Zeros deflate a little more than 1000 times.
        {packed({{"[Content_Types].xml", kTypes}, {"zeros.bin", std::string(20 << 20, '\0')}}),
         "entry 'zeros.bin' expands more than 1000 times (see --max-ratio)"},
    };
    for (const auto& [archive, message] : cases) refuse(archive, message);
    // Limits are checked on declared sizes, so an entry inflating past its own
    // is refused at once.
    std::string bomb = packed({{"[Content_Types].xml", kTypes}, {"zeros.bin", std::string(4 << 20, '\0')}});
    setDeclaredSize(bomb, "zeros.bin", 10);
    refuse(bomb, "entry 'zeros.bin' inflates to more than the 10 bytes it declares", {"--max-ratio", "100"});
    refuse(with("a.bin", std::string(3000, 'a')),
           "expands to " + std::to_string(3000 + kTypes.size()) +
               " bytes, more than the limit of 2048 bytes (see --max-size)",
           {"--max-size", "2K"});
}

TEST_F(UnpackOntoPackage, CorruptDataFoundAfterEarlierEntriesAreWrittenLeavesTheTarget) {
    std::string damaged = corpusFile("pydocx-test.docx");
    const std::size_t at = damaged.find("word/document.xml") + 17 + 200;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x55);
    damaged[at + 1] = static_cast<char>(damaged[at + 1] ^ 0x55);
    writeFile(dir.path() / "bad.zip", damaged);
    const TreeSnapshot before = withoutLockFiles(snapshotTree(dir.path()));
    const RunResult result = runOpcdir(dir.path(), {"unpack", "--force", "bad.zip", "pkg"});
    EXPECT_EQ(result.status, 1);
    // The damaged stream inflates past the size the entry declares.
    EXPECT_EQ(result.err,
              "opcdir: bad.zip: entry 'word/document.xml' inflates to more than the 1820 bytes it declares\n");
    EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), before);
}

// Fails each file-system call of each command in turn: a failed run must say
// so in one line naming one of its files, with status 1 and nothing on
// standard output, and leave the whole tree as it was; a run that succeeds
// anyway (the failure was harmless) must give the clean result.
TEST(CommandUnderFaults, EveryFailingCallLeavesTheOldTreeOrGivesTheNew) {
    TempDir dir;
    const auto restore = [&] {
        std::filesystem::remove_all(dir.path());
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
        writeFile(dir.path() / "pkg" / "word" / "document.xml", "<old/>");
        writeFile(dir.path() / "pkg" / "word" / "styles.xml", "<styles/>");
        writeFile(dir.path() / "in.xml", "<new/>");
        writeFile(dir.path() / "out.docx", "the previous archive");
        writeFile(dir.path() / "new.zip",
                  rawZip({{"[Content_Types].xml", kTypes}, {"word/document.xml", "<new/>"}, {"media/a.bin", "abc"}}));
        return withoutLockFiles(snapshotTree(dir.path()));
    };
    const TreeSnapshot before = restore();
    const auto at = [&](const std::string& relative) { return (dir.path() / relative).string(); };
    const std::vector<std::vector<std::string>> commands = {
        {"ls", "--long", at("pkg")},
        {"cat", at("pkg"), "word/document.xml"},
        {"new", at("fresh")},
        {"put", at("pkg"), "word/document.xml", at("in.xml")},
        {"put", at("pkg"), "customXml/item1.xml", at("in.xml")},
        {"rm", at("pkg"), "word/styles.xml"},
        {"unpack", "--force", at("new.zip"), at("pkg")},
        {"pack", at("pkg"), at("out.docx")},
        {"recover", at("pkg")},
    };
    std::size_t covered = 0;
    std::set<Hook> failedHooks;
    for (const auto& arguments : commands) {
        SCOPED_TRACE(arguments.front() + " " + arguments.back());
        restore();
        FaultyFileSystemOps counting;
        const RunResult clean = runOpcdirWith(counting, arguments);
        ASSERT_EQ(clean.status, 0) << clean.err;
        const TreeSnapshot after = withoutLockFiles(snapshotTree(dir.path()));
        const std::size_t calls = counting.calls().size();
        for (std::size_t call = 1; call <= calls; ++call) {
            SCOPED_TRACE("failing call " + std::to_string(call) + " of " + std::to_string(calls) + ": " +
                         hookName(counting.calls()[call - 1].hook));
            restore();
            FaultyFileSystemOps faulty;
            faulty.failGlobalCall(call);
            const RunResult result = runOpcdirWith(faulty, arguments);
            ASSERT_EQ(faulty.failures(), 1u);
            failedHooks.insert(counting.calls()[call - 1].hook);
            // A failure the command can do without (a lock file left behind)
            // gives the clean run's result.
            if (result.status == 0) {
                EXPECT_EQ(result.out, clean.out);
                EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), after);
                continue;
            }
            EXPECT_EQ(result.status, 1);
            EXPECT_TRUE(std::any_of(arguments.begin(), arguments.end(), [&](const std::string& a) {
                return result.err.rfind("opcdir: " + a + ": ", 0) == 0;
            })) << result.err;
            EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), before);
        }
        covered += calls;
    }
    std::cout << "[ coverage ] failed each of " << covered << " service calls of " << commands.size()
              << " commands in turn\n";
    // Among them every kind of call the tool makes beyond what the package
    // does: the input file, the archive read and written, sizes, targets and
    // the recovery every writing command starts with, and the lock.
    for (const Hook hook :
         {Hook::CreateInputStream, Hook::CreateOutputStream, Hook::FileSize, Hook::ReplaceFile, Hook::GetTempName,
          Hook::IsFolder, Hook::GetFiles, Hook::NormalizePath, Hook::Recover, Hook::Exists, Hook::LockFile})
        EXPECT_EQ(failedHooks.count(hook), 1u) << hookName(hook);
}

}  // namespace
}  // namespace opc::test
