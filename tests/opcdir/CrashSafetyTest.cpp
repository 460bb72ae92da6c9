// What opcdir does after a commit a dead process left unfinished, with a
// write that fails at its last bytes, and with a package's permissions.

#include "OpcdirHarness.h"
#include "support/Attributes.h"
#include "support/ChildProcess.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace opc::test {
namespace {

namespace fs = std::filesystem;

const std::string kTypes = "<Types/>";

// A dead commit's journal: the package "pkg" moved aside to ".opc-aside".
const std::string kJournal = std::string("OPCSWAP1Spkg") + '\0' + ".opc-aside" + '\0';

TEST(OpcdirRecover, PutsBackWhatDeadCommitsLeftAndSaysSo) {
    const std::string restored = "pkg: put back the package as it was before an unfinished commit";
    const std::string removed = "removed 1 folder left by unfinished commits\n";
    // Whether the package is at its path, moved aside with a journal, a
    // staging folder of a dead process lies beside it; what recover says.
    for (const auto& [atPath, aside, staging, result] : std::vector<std::tuple<bool, bool, bool, RunResult>>{
             {true, false, false, {0, "pkg: nothing to recover\n", ""}},
             {false, true, true, {0, restored + "; " + removed, ""}},
             {true, false, true, {0, "pkg: " + removed, ""}},
             {false, false, false, {1, "pkg: nothing to recover\n", "opcdir: pkg: no whole package here\n"}}}) {
        SCOPED_TRACE(result.out);
        TempDir dir;
        if (atPath || aside) writeFile(dir.path() / (atPath ? "pkg" : ".opc-aside") / "[Content_Types].xml", kTypes);
        if (aside) writeFile(dir.path() / ".opc-1.journal", kJournal);
        if (staging) writeFile(dir.path() / ".opc-staging/word/half.xml", "<half");
        EXPECT_EQ(runOpcdir(dir.path(), {"recover", "pkg"}), result);
        const TreeSnapshot whole{{"pkg/", ""}, {"pkg/[Content_Types].xml", kTypes}};
        EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), atPath || aside ? whole : TreeSnapshot{});
    }
}

// Every command that writes recovers first: new does not build a package
// over one that is only moved aside, put and rm work on it.
TEST(OpcdirRecover, CommandsThatWriteRecoverFirst) {
    for (const std::string line : {"put pkg /a.xml a.xml", "rm pkg /word/document.xml", "new pkg"}) {
        SCOPED_TRACE(line);
        TempDir dir;
        writeFile(dir.path() / ".opc-aside/[Content_Types].xml", kTypes);
        writeFile(dir.path() / ".opc-aside/word/document.xml", "doc");
        writeFile(dir.path() / ".opc-1.journal", kJournal);
        writeFile(dir.path() / "a.xml", "<a/>");
        EXPECT_EQ(runOpcdir(dir.path(), words(line)).status, line[0] == 'n' ? 1 : 0);
        TreeSnapshot expected{{"a.xml", "<a/>"}, {"pkg/", ""}, {"pkg/[Content_Types].xml", kTypes}};
        if (line[0] != 'r') expected.insert({{"pkg/word/", ""}, {"pkg/word/document.xml", "doc"}});
        if (line[0] == 'p') expected["pkg/a.xml"] = "<a/>";
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

// A private package (and, as root, one owned by someone else) stays so
// across put and rm.
TEST(OpcdirPermissions, PutAndRmKeepModesAndOwners) {
    const bool root = ::geteuid() == 0;
    const uid_t owner = root ? 4321 : ::geteuid();
    const gid_t group = root ? 4322 : ::getegid();
    const std::vector<std::pair<std::string, mode_t>> entries = {{"pkg", 0700},
                                                                 {"pkg/word", 0700},
                                                                 {"pkg/[Content_Types].xml", 0600},
                                                                 {"pkg/word/document.xml", 0640},
                                                                 {"pkg/word/styles.xml", 0600}};
    for (const std::string line : {"put pkg /word/document.xml new.xml", "rm pkg /word/styles.xml"}) {
        SCOPED_TRACE(line);
        TempDir dir;
        writeFile(dir.path() / "new.xml", "<new/>");
        for (const char* name : {"[Content_Types].xml", "word/document.xml", "word/styles.xml"})
            writeFile(dir.path() / "pkg" / name, "<old/>");
        for (const auto& [path, mode] : entries) {
            if (root) {
                ASSERT_EQ(::lchown((dir.path() / path).c_str(), owner, group), 0);
            }
            ASSERT_EQ(::chmod((dir.path() / path).c_str(), mode), 0);
        }
        ASSERT_EQ(runOpcdir(dir.path(), words(line)).status, 0);
        const bool put = line[0] == 'p';
        for (const auto& [path, mode] : entries) {
            if (path != "pkg/word/styles.xml" || put) {
                EXPECT_EQ(attributesOf(dir.path() / path), (Attributes{mode, owner, group})) << path;
            }
        }
        EXPECT_EQ(readFile(dir.path() / "pkg/word/document.xml"), put ? "<new/>" : "<old/>");
        EXPECT_EQ(fs::exists(dir.path() / "pkg/word/styles.xml"), put);
    }
}

}  // namespace
}  // namespace opc::test
