// What opcdir does after a commit a dead process left unfinished, and with a
// write that fails at its last bytes. Modes and owners across put and rm are
// the library commit's, proven in tests/commit/DurabilityTest.cpp.

#include "OpcdirHarness.h"
#include "support/ChildProcess.h"

#include <signal.h>
#include <sys/resource.h>

#include <map>

namespace opc::test {
namespace {

const std::string kTypes = "<Types/>";

// A dead commit's journal: the package "pkg" moved aside to ".opc-aside".
const std::string kJournal = std::string("OPCSWAP1Spkg") + '\0' + ".opc-aside" + '\0';

// A package (or none) at its path or moved aside by a commit whose process
// died, a staging folder of that process beside it or not; then recover, or
// a command that writes and so recovers first: new does not build a package
// over one that is only moved aside, put and rm work on it.
TEST(OpcdirRecover, PutsBackWhatDeadCommitsLeftAndSaysSoAndEveryCommandThatWritesDoesFirst) {
    const std::string restored = "pkg: put back the package as it was before an unfinished commit";
    const std::string removed = "removed 1 folder left by unfinished commits\n";
    const std::map<std::string, std::string> bytes{
        {"[Content_Types].xml", kTypes}, {"word/document.xml", "doc"}, {"a.xml", "<a/>"}};
    struct Case {
        std::string where;  // "pkg", ".opc-aside" with a journal, or none
        bool staging;
        std::string line;
        RunResult result;
        std::string parts;  // what the package holds afterwards
    };
    const std::string both = "[Content_Types].xml word/document.xml";
    const std::string exists = "pkg: already exists and is not an empty folder\n";
    for (const Case& c : std::vector<Case>{
             {"pkg", false, "recover pkg", {0, "pkg: nothing to recover\n", ""}, both},
             {".opc-aside", true, "recover pkg", {0, restored + "; " + removed, ""}, both},
             {"pkg", true, "recover pkg", {0, "pkg: " + removed, ""}, both},
             {"", false, "recover pkg", {1, "pkg: nothing to recover\n", "opcdir: pkg: no whole package here\n"}, ""},
             {".opc-aside", false, "put pkg /a.xml a.xml", {0, "", ""}, both + " a.xml"},
             {".opc-aside", false, "rm pkg /word/document.xml", {0, "", ""}, "[Content_Types].xml"},
             {".opc-aside", false, "new pkg", {1, "", "opcdir: " + exists}, both},
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

// The file-size limit is reached by the last bytes, which still sit in the
// stream's buffer when the input ends: put must not report success.
TEST(OpcdirWriteFailure, LastBytesOverTheFileSizeLimitExitOneNamingTheCause) {
    constexpr rlim_t kLimit = 64 * 1024;
    TempDir dir;
    TempDir report;
    writeFile(dir.path() / "pkg/[Content_Types].xml", kTypes);
    writeFile(dir.path() / "big.bin", std::string(kLimit + 50, 'x'));
    const TreeSnapshot before = withoutLockFiles(snapshotTree(dir.path()));
    const pid_t child = forkChild([&] {
        ::signal(SIGXFSZ, SIG_IGN);  // inherited by the tool: the write fails with EFBIG instead
        const rlimit limit{kLimit, kLimit};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const RunResult result = runOpcdir(dir.path(), {"put", "pkg", "/big.bin", "big.bin"});
        writeFile(report.path() / "err", result.err);
        return result.status;
    });
    EXPECT_EQ(waitChild(child), 1);
    EXPECT_EQ(readFile(report.path() / "err"), "opcdir: pkg: cannot write part '/big.bin': File too large\n");
    EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), before);
}

}  // namespace
}  // namespace opc::test
