#include "OpcdirHarness.h"
#include "support/ChildProcess.h"
#include "support/FaultyFileSystemOps.h"
#include "support/RawZip.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <streambuf>

namespace opc::test {
namespace {

TEST(CommandLine, HelpForTheToolAndEachCommandAndTheProjectVersion) {
    TempDir dir;
    EXPECT_EQ(runOpcdir(dir.path(), {"--version"}), (RunResult{0, "opcdir " OPC_PROJECT_VERSION "\n", ""}));
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

// A corpus document unpacked by the tool into "doc", beside an input file,
// folders that are no package or a bad one, and outputs no archive may go to.
class EditCorpusPackage : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::copy_file(testDataDir() / "corpus" / "pydocx-test.docx", dir.path() / "doc.docx");
        ASSERT_EQ(runOpcdir(dir.path(), {"unpack", "doc.docx", "doc"}), (RunResult{0, "", ""}));
        writeFile(dir.path() / "in.xml", "<w:document>replaced</w:document>");
        writeFile(dir.path() / "plain" / "a.txt", "a");
        writeFile(dir.path() / "odd" / "[Content_Types].xml" / "a.xml", "a");
        for (const char* name : {"slash", "cased"})
            writeFile(dir.path() / name / "[Content_Types].xml",
                      "<Types><Default Extension='xml' ContentType='a/b'/></Types>");
        writeFile(dir.path() / "slash" / "a\\b.xml", "x");
        writeFile(dir.path() / "cased" / "A.xml", "1");
        writeFile(dir.path() / "cased" / "a.xml", "2");
        writeFile(dir.path() / "target.zip", "the link's target");
        std::filesystem::create_symlink("target.zip", dir.path() / "link.zip");
        std::filesystem::create_symlink("missing.xml", dir.path() / "link.xml");
        ASSERT_EQ(::mkfifo((dir.path() / "fifo.zip").c_str(), 0644), 0);
        before = snapshotTree(dir.path());
    }

    // Runs a command that must succeed silently and leave `before` with these
    // entries set and those gone.
    void expectTree(const std::vector<std::string>& arguments,
                    const TreeSnapshot& set,
                    const std::vector<std::string>& gone = {},
                    const std::string& input = "") {
        EXPECT_EQ(runOpcdir(dir.path(), arguments, input), (RunResult{0, "", ""}));
        for (const auto& [name, bytes] : set) before[name] = bytes;
        for (const std::string& name : gone) EXPECT_EQ(before.erase(name), 1u) << name;
        EXPECT_EQ(snapshotTree(dir.path()), before);
    }

    TempDir dir;
    TreeSnapshot before;
};

TEST_F(EditCorpusPackage, NewCatPutAndRmReadAndChangeJustTheirFiles) {
    EXPECT_EQ(runOpcdir(dir.path(), {"cat", "doc", "/word/document.xml"}),
              (RunResult{0, before.at("doc/word/document.xml"), ""}));
    EXPECT_EQ(runOpcdir(dir.path(), {"cat", "doc", "[Content_Types].xml"}),
              (RunResult{0, before.at("doc/[Content_Types].xml"), ""}));
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
    // A new package holds just a minimal content-types stream.
    expectTree({"new", "fresh"}, {{".opc-lock-fresh", ""},
                                  {"fresh/", ""},
                                  {"fresh/[Content_Types].xml",
                                   "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
                                   "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
                                   "<Default Extension=\"rels\" "
                                   "ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
                                   "<Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>\n"}});
}

TEST_F(EditCorpusPackage, RefusalsAreOneLineWithStatusOneOrTwoForUsageAndChangeNothing) {
    const std::string name = "doc: invalid part name '";
    const std::vector<std::tuple<int, std::string, std::string>> cases = {
        {2, "", "no command given (see 'opcdir --help')"},
        {2, "frob", "unknown command 'frob' (see 'opcdir --help')"},
        {2, "ls", "ls: missing operand (see 'opcdir ls --help')"},
        {2, "put doc a b c", "put: unexpected operand 'c' (see 'opcdir put --help')"},
        {2, "unpack a.zip out --max-size", "unpack: --max-size needs a value (see 'opcdir unpack --help')"},
        {2, "unpack --max-size 4X a.zip out",
         "unpack: --max-size needs a byte count such as 4096, 64K or 4G, not '4X'"},
        {2, "unpack --max-ratio 0 a.zip out", "unpack: --max-ratio must be at least 1"},
        {2, "unpack --jobs 257 a.zip out", "unpack: --jobs must be a number from 1 to 256, not '257'"},
        {2, "pack --level 10 doc out.zip", "pack: --level must be a number from 0 to 9, not '10'"},
        {2, "pack --jobs 0 doc out.zip", "pack: --jobs must be a number from 1 to 256, not '0'"},
        {2, "pack --jobs x doc out.zip", "pack: --jobs must be a number from 1 to 256, not 'x'"},
        {1, "rm doc word/styles.xml /word/styles.xml", "doc: no part '/word/styles.xml'"},
        {1, "rm doc [Content_Types].xml", "doc: cannot remove '/[Content_Types].xml': every package needs it"},
        {1, "cat doc word/nothing.xml", "doc: no part '/word/nothing.xml'"},
        {1, "put doc a\\b in.xml", name + "a\\\\b': backslash in name"},
        {1, "rm doc /[trash]/x", name + "/[trash]/x': reserved name '[trash]'"},
        {1, "put doc word/theme in.xml",
         "doc: part '/word/theme' would be the folder of part '/word/theme/theme1.xml'"},
        {1, "put doc word/document.xml/a.png in.xml",
         "doc: part '/word/document.xml' would be the folder of part '/word/document.xml/a.png'"},
        {1, "put doc WORD/Document.XML in.xml",
         "doc: part '/WORD/Document.XML' differs only in case from '/word/document.xml'"},
        {1, "put doc word/document.xml doc", "doc: is a folder"},
        {1, "put doc a.xml link.xml", "link.xml: Too many levels of symbolic links"},
        {1, "ls plain", "plain: not a package: no [Content_Types].xml"},
        {1, "cat odd [Content_Types].xml/a.xml", "odd: not a package: no [Content_Types].xml"},
        {1, "rm plain/a.txt x", "plain/a.txt: not a folder"},
        {1, "new doc", "doc: already exists and is not an empty folder"},
        {1, "unpack doc.docx doc", "doc: already exists and is not an empty folder (use --force to replace it)"},
        {1, "pack slash out.zip", "slash: cannot pack part '/a\\\\b.xml': backslash in name"},
        {1, "pack cased out.zip", "cased: cannot pack part '/a.xml': differs only in case from '/A.xml'"},
        {1, "pack doc doc/inside.zip", "doc/inside.zip: lies inside the package doc"},
        {1, "pack doc plain", "plain: is a folder"},
        {1, "pack doc nowhere/out.zip", "nowhere/out.zip: its folder does not exist"},
        {1, "pack doc link.zip", "link.zip: is a symbolic link, not a regular file"},
        {1, "pack doc fifo.zip", "fifo.zip: is a special file, not a regular file"},
        {1, "pack doc " + std::string(256, 'z'), std::string(256, 'z') + ": cannot write: File name too long"},
    };
    for (const auto& [status, line, message] : cases) {
        SCOPED_TRACE(line.substr(0, 100));
        expectRefused(dir.path(), words(line), message, status);
    }
}

TEST(UnpackPackCorpus, EveryPackageRoundTripsEntryForEntryAndPacksTheSameTwice) {
    for (const auto& archive : corpusPackages()) {
        SCOPED_TRACE(archive.filename().string());
        TempDir dir;
        ASSERT_EQ(runOpcdir(dir.path(), {"unpack", archive.string(), "pkg"}), (RunResult{0, "", ""}));
        ZipEntries original = readZipEntries(archive);
        EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), treeOf(original));

        writeFile(dir.path() / "first.zip", "replaced by pack");
        ASSERT_EQ(runOpcdir(dir.path(), {"pack", "pkg", "first.zip"}), (RunResult{0, "", ""}));
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

// The archive is read through a 64 KiB window: entries across its edges,
// larger than it or far apart come out byte for byte, whatever the jobs. A
// part written on a worker is closed there at once: thousands of entries
// unpack within a hundred open files.
TEST(UnpackWindow, EveryEntryComesOutWhereverItLiesWhateverTheJobsWithinAHundredOpenFiles) {
    TempDir dir;
    RawZip zip;
    TreeSnapshot expected;
    const auto add = [&](const std::string& name, const std::string& bytes, bool deflate) {
        if (deflate) {
            zip.deflated(name, bytes);
        } else {
            zip.stored(name, bytes);
        }
        expected[name] = bytes;
    };
    add("[Content_Types].xml", "<Types/>", false);
    for (const std::uint32_t size : {65535u, 65536u, 65537u, 200000u})
        add("big/" + std::to_string(size), noise(size, size), false);
    for (std::uint32_t i = 0; i < 40; ++i)
        add("small/" + std::to_string(i), noise(97 * (i + 1) * (i + 1), i), i % 3 == 0);
    add("text.xml", std::string(300000, 'x') + noise(5000), true);
    add("large.xml", std::string(std::size_t{1} << 20, 'y') + noise(5000, 2), true);
    add("huge.xml", std::string(std::size_t{9} << 20, 'z') + noise(5000, 4), true);
    add("empty.xml", "", true);
    for (int i = 0; i < 2000; ++i) add("e/" + std::to_string(i), "", true);
    // libzip takes bytes after the end of a deflate stream, and so does unpack.
    expected["trailing.xml"] = noise(3000, 3);
    zip.deflated("trailing.xml", expected["trailing.xml"]).data += "after";
    expected["big/"] = expected["small/"] = expected["e/"] = "";
    zip.write(dir.path() / "a.zip");
    for (const std::string jobs : {"1", "2", "7"}) {
        SCOPED_TRACE(jobs + " jobs");
        const pid_t child = forkChild([&] {
            const rlimit limit{100, 100};
            ::setrlimit(RLIMIT_NOFILE, &limit);
            return runOpcdir(dir.path(), {"unpack", "--jobs", jobs, "a.zip", "pkg" + jobs}).status;
        });
        ASSERT_EQ(waitChild(child), 0);
        EXPECT_EQ(snapshotTree(dir.path() / ("pkg" + jobs)), expected);
    }
}

// Fails each file-system call of each command in turn: a failed run says so
// in one line naming one of its files, status 1 (2 for diff and check), and
// leaves the tree as it was; one that succeeds anyway gives the clean result.
TEST(CommandUnderFaults, EveryFailingCallLeavesTheOldTreeOrGivesTheNew) {
    TempDir dir;
    const std::string types = "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>";
    RawZip zip;
    zip.stored("[Content_Types].xml", types);
    zip.stored("word/document.xml", "<new/>");
    zip.stored("media/a.bin", "abc");
    const auto restore = [&] {
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) std::filesystem::remove_all(entry);
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", types);
        writeFile(dir.path() / "pkg" / "word" / "document.xml", "<old/>");
        writeFile(dir.path() / "pkg" / "word" / "styles.xml", "<styles/>");
        writeFile(dir.path() / "in.xml", "<new/>");
        writeFile(dir.path() / "out.docx", "the previous archive");
        zip.write(dir.path() / "new.zip");
        return withoutLockFiles(snapshotTree(dir.path()));
    };
    const TreeSnapshot before = restore();
    const std::vector<std::string> commands = {"ls --long pkg",
                                               "cat pkg word/document.xml",
                                               "new fresh",
                                               "put pkg word/document.xml in.xml",
                                               "put pkg customXml/item1.xml in.xml",
                                               "rm pkg word/styles.xml",
                                               "unpack --force new.zip pkg",
                                               "pack pkg out.docx",
                                               "recover pkg",
                                               "diff --text pkg new.zip",
                                               "check pkg",
                                               "textconv pkg"};
    const CurrentFolder in(dir.path());  // so that messages name files as typed
    std::size_t covered = 0;
    std::set<Hook> failedHooks;
    for (const std::string& line : commands) {
        SCOPED_TRACE(line);
        const std::vector<std::string> arguments = words(line);
        restore();
        FaultyFileSystemOps counting;
        const RunResult clean = runWith(counting, arguments);
        // diff and check answer by status 0 or 1, and fail with 2.
        const std::string& name = arguments.front();
        const int failure = name == "diff" || name == "check" ? 2 : 1;
        ASSERT_TRUE(clean.status == 0 || (failure == 2 && clean.status == 1)) << clean.err;
        const TreeSnapshot after = withoutLockFiles(snapshotTree(dir.path()));
        const std::size_t calls = counting.calls().size();
        for (std::size_t call = 1; call <= calls; ++call) {
            const Hook hook = counting.calls()[call - 1].hook;
            SCOPED_TRACE("failing call " + std::to_string(call) + " of " + std::to_string(calls) + ": " +
                         hookName(hook));
            restore();
            FaultyFileSystemOps faulty;
            faulty.failGlobalCall(call);
            const RunResult result = runWith(faulty, arguments);
            ASSERT_EQ(faulty.failures(), 1u);
            failedHooks.insert(hook);
            // A failure the command can do without (a lock file left behind)
            // gives the clean run's result.
            EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), result.status == clean.status ? after : before);
            if (result.status == clean.status) {
                EXPECT_EQ(result.out, clean.out);
                continue;
            }
            EXPECT_EQ(result.status, failure);
            EXPECT_EQ(result.out, "");
            EXPECT_TRUE(
                std::any_of(arguments.begin(), arguments.end(),
                            [&](const std::string& a) { return result.err.rfind("opcdir: " + a + ": ", 0) == 0; }) &&
                result.err.find('\n') == result.err.size() - 1)
                << result.err;
        }
        covered += calls;
    }
    std::cout << "[ coverage ] failed each of " << covered << " service calls of " << commands.size()
              << " commands in turn\n";
    // Among them every kind of call the tool makes beyond the package's.
    for (const Hook hook : {Hook::CreateInputStream, Hook::CreateOutputStream, Hook::FileSize, Hook::ReplaceFile,
                            Hook::GetTempName, Hook::IsFolder, Hook::GetFiles, Hook::NormalizePath, Hook::Recover,
                            Hook::Exists, Hook::LockFile, Hook::GetIrregularEntries})
        EXPECT_EQ(failedHooks.count(hook), 1u) << hookName(hook);
}

// Every file written through it takes at most `limit` bytes and refuses the
// rest, as write(2) does on a full disk, or fails its flush, as a write of
// bytes still buffered does; errno is set to error, when given.
struct RefusingWrites : FaultyFileSystemOps {
    struct Rules {
        std::size_t limit;
        bool flushFails;
        int error;
    } rules;
    explicit RefusingWrites(Rules r) : rules(r) {}

    struct Stream : std::streambuf, std::ostream {
        Stream(std::shared_ptr<std::ostream> file, Rules r) : std::ostream(this), real(std::move(file)), rules(r) {}
        using std::streambuf::int_type, std::streambuf::off_type, std::streambuf::pos_type, std::streambuf::traits_type;
        std::streamsize xsputn(const char* data, std::streamsize count) override {
            // Compared unsigned: a limit of SIZE_MAX is no limit, not -1.
            const auto taken = static_cast<std::streamsize>(std::min(static_cast<std::size_t>(count), rules.limit));
            real->write(data, taken);
            rules.limit -= static_cast<std::size_t>(taken);
            if (taken < count && rules.error != 0) errno = rules.error;
            return taken;
        }
        int_type overflow(int_type c) override {
            const char byte = traits_type::to_char_type(c);
            return traits_type::eq_int_type(c, traits_type::eof()) || xsputn(&byte, 1) == 1 ? traits_type::not_eof(c)
                                                                                            : traits_type::eof();
        }
        int sync() override {
            if (rules.flushFails && rules.error != 0) errno = rules.error;
            return rules.flushFails || !real->flush() ? -1 : 0;
        }
        pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode) override {
            return real->seekp(offset, from) ? real->tellp() : pos_type(off_type(-1));
        }
        pos_type seekpos(pos_type position, std::ios_base::openmode) override {
            return real->seekp(position) ? real->tellp() : pos_type(off_type(-1));
        }
        std::shared_ptr<std::ostream> real;
        Rules rules;
    };
    std::shared_ptr<std::ostream> createOutputStreamImpl(const std::u16string& path,
                                                         std::ios_base::openmode openMode,
                                                         boost::system::error_code& errorCode) noexcept override {
        auto file = FaultyFileSystemOps::createOutputStreamImpl(path, openMode, errorCode);
        return file ? std::make_shared<Stream>(std::move(file), rules) : file;
    }
};

// Writes failing at once, later, or as the last bytes are flushed (a part
// over the file-size limit, say): one line naming cause and file, and no
// part, archive or temporary file changed.
TEST(CommandUnderFaults, FailedWritesNameTheirCauseAndTheFileAndLeaveTheOldFiles) {
    TempDir dir;
    writeFile(dir.path() / "pkg" / "[Content_Types].xml", "<Types/>");
    writeFile(dir.path() / "pkg" / "word" / "document.xml", std::string(5000, 'w'));
    writeFile(dir.path() / "out.docx", "the previous archive");
    writeFile(dir.path() / "in.xml", "<new/>");
    // Parts written on worker threads: the first that fails in archive
    // order is named, though later ones fail too.
    RawZip many;
    many.stored("[Content_Types].xml", "<Types/>");
    many.deflated("a.xml", std::string(100, 'a'));
    many.deflated("b.xml", std::string(5000, 'b'));
    for (int i = 0; i < 30; ++i) many.deflated("c" + std::to_string(i) + ".xml", std::string(6000, 'c'));
    many.write(dir.path() / "many.zip");
    const TreeSnapshot before = withoutLockFiles(snapshotTree(dir.path()));
    const CurrentFolder in(dir.path());
    const std::string noSpace = ": No space left on device\n";
    const std::size_t all = std::numeric_limits<std::size_t>::max();
    for (const auto& [line, limit, flushFails, error, message] :
         std::vector<std::tuple<std::string, std::size_t, bool, int, std::string>>{
             {"put pkg b.xml in.xml", 0, false, ENOSPC, "pkg: cannot write part '/b.xml'" + noSpace},
             {"put pkg b.xml in.xml", all, true, EFBIG, "pkg: cannot write part '/b.xml': File too large\n"},
             {"unpack --jobs 1 many.zip new/pkg", 4000, false, ENOSPC, "new/pkg: cannot write part '/b.xml'" + noSpace},
             {"unpack --jobs 4 many.zip new/pkg", 4000, false, ENOSPC, "new/pkg: cannot write part '/b.xml'" + noSpace},
             {"pack pkg out.docx", 100, false, 0, "out.docx: cannot write: write failed\n"},
             {"pack pkg out.docx", all, true, 0, "out.docx: cannot write: write failed\n"}}) {
        SCOPED_TRACE(line.substr(0, 40) + " " + std::to_string(limit) + (flushFails ? ", flush fails" : ""));
        RefusingWrites service({limit, flushFails, error});
        EXPECT_EQ(runWith(service, words(line)), (RunResult{1, "", "opcdir: " + message}));
        EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), before);
    }
}

// A dead commit's journal: the package "pkg" moved aside to ".opc-aside".
const std::string kJournal = std::string("OPCSWAP1Spkg") + '\0' + ".opc-aside" + '\0';

// A package at its path or moved aside by a dead commit, with its staging
// folder or not; then recover, or a writing command, which recovers first:
// new does not build over a package only moved aside, put and rm work on it.
TEST(OpcdirRecover, PutsBackWhatDeadCommitsLeftAndSaysSoAndEveryCommandThatWritesDoesFirst) {
    const std::string restored = "pkg: put back the package as it was before an unfinished commit";
    const std::string removed = "removed 1 folder left by unfinished commits\n";
    const std::map<std::string, std::string> bytes{
        {"[Content_Types].xml", "<Types/>"}, {"word/document.xml", "doc"}, {"a.xml", "<a/>"}};
    struct Case {
        std::string where;  // "pkg", ".opc-aside" with a journal, or none
        bool staging;
        std::string line;
        RunResult result;
        std::string parts;  // what the package holds afterwards
    };
    const std::string both = "[Content_Types].xml word/document.xml";
    for (const Case& c : std::vector<Case>{
             {"pkg", false, "recover pkg", {0, "pkg: nothing to recover\n", ""}, both},
             {".opc-aside", true, "recover pkg", {0, restored + "; " + removed, ""}, both},
             {"pkg", true, "recover pkg", {0, "pkg: " + removed, ""}, both},
             {"", false, "recover pkg", {1, "pkg: nothing to recover\n", "opcdir: pkg: no whole package here\n"}, ""},
             {".opc-aside", false, "put pkg /a.xml a.xml", {0, "", ""}, both + " a.xml"},
             {".opc-aside", false, "rm pkg /word/document.xml", {0, "", ""}, "[Content_Types].xml"},
             {".opc-aside",
              false,
              "new pkg",
              {1, "", "opcdir: pkg: already exists and is not an empty folder\n"},
              both},
         }) {
        SCOPED_TRACE(c.line + " after " + c.where);
        TempDir dir;
        writeFile(dir.path() / "a.xml", "<a/>");
        for (const std::string name : {"[Content_Types].xml", "word/document.xml"})
            if (!c.where.empty()) writeFile(dir.path() / c.where / name, bytes.at(name));
        if (c.where == ".opc-aside") writeFile(dir.path() / ".opc-1.journal", kJournal);
        if (c.staging) writeFile(dir.path() / ".opc-5a61e1dc0ffee000/word/half.xml", "<half");
        EXPECT_EQ(runOpcdir(dir.path(), words(c.line)), c.result);
        TreeSnapshot expected{{"a.xml", "<a/>"}};
        for (const std::string& name : words(c.parts)) {
            expected["pkg/" + name] = bytes.at(name);
            expected["pkg/"] = "";
            if (name[0] == 'w') expected["pkg/word/"] = "";
        }
        EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), expected);
    }
}

}  // namespace
}  // namespace opc::test
