// What opcdir does after a commit a dead process left unfinished, with a
// write that fails at its last bytes, and with a package's permissions.

#include "OpcdirHarness.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

namespace opc::test {
namespace {

namespace fs = std::filesystem;

const std::string kTypes = "<Types/>";

// A dead commit's journal: the package "pkg" moved aside to ".opc-aside".
std::string journal(char state) { return std::string("OPCSWAP1") + state + "pkg" + '\0' + ".opc-aside" + '\0'; }

TEST(OpcdirRecover, PutsBackWhatDeadCommitsLeftAndSaysSo) {
    struct Case {
        const char* name;
        bool atPath;        // the package at its path
        bool aside;         // the package moved aside, with a journal
        bool staging;       // a staging folder of a dead process beside it
        std::string line;   // on standard output
        std::string error;  // on standard error; status 1 when set
    };
    const std::string restored = "pkg: put back the package as it was before an unfinished commit";
    for (const Case& c : std::vector<Case>{
             {"whole", true, false, false, "pkg: nothing to recover\n", ""},
             {"moved aside", false, true, true, restored + "; removed 1 folder left by unfinished commits\n", ""},
             {"staging left", true, false, true, "pkg: removed 1 folder left by unfinished commits\n", ""},
             {"nothing", false, false, false, "pkg: nothing to recover\n", "opcdir: pkg: no whole package here\n"}}) {
        SCOPED_TRACE(c.name);
        TempDir dir;
        if (c.atPath || c.aside)
            writeFile(dir.path() / (c.atPath ? "pkg" : ".opc-aside") / "[Content_Types].xml", kTypes);
        if (c.aside) writeFile(dir.path() / ".opc-1.journal", journal('S'));
        if (c.staging) writeFile(dir.path() / ".opc-staging/word/half.xml", "<half");
        const RunResult result = runOpcdir(dir.path(), {"recover", "pkg"});
        EXPECT_EQ(result.status, c.error.empty() ? 0 : 1);
        EXPECT_EQ(result.out, c.line);
        EXPECT_EQ(result.err, c.error);
        const TreeSnapshot whole{{"pkg/", ""}, {"pkg/[Content_Types].xml", kTypes}};
        EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), c.atPath || c.aside ? whole : TreeSnapshot{});
    }
}

// Every command that writes recovers first: new and unpack do not build a
// package over one that is only moved aside, put and rm work on it.
TEST(OpcdirRecover, CommandsThatWriteRecoverFirst) {
    for (const auto& [arguments, status, added] :
         std::vector<std::tuple<std::vector<std::string>, int, bool>>{{{"put", "pkg", "/a.xml", "a.xml"}, 0, true},
                                                                      {{"rm", "pkg", "/word/document.xml"}, 0, false},
                                                                      {{"new", "pkg"}, 1, false}}) {
        SCOPED_TRACE(arguments[0]);
        TempDir dir;
        writeFile(dir.path() / ".opc-aside/[Content_Types].xml", kTypes);
        writeFile(dir.path() / ".opc-aside/word/document.xml", "doc");
        writeFile(dir.path() / ".opc-1.journal", journal('S'));
        writeFile(dir.path() / "a.xml", "<a/>");
        const RunResult result = runOpcdir(dir.path(), arguments);
        EXPECT_EQ(result.status, status) << result.err;
        TreeSnapshot expected{{"a.xml", "<a/>"}, {"pkg/", ""}, {"pkg/[Content_Types].xml", kTypes}};
        if (arguments[0] != "rm") expected.insert({{"pkg/word/", ""}, {"pkg/word/document.xml", "doc"}});
        if (added) expected["pkg/a.xml"] = "<a/>";
        EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), expected);
    }
}

// The file-size limit is reached by the last bytes, which still sit in the
// stream's buffer when the input ends: put must not report success.
TEST(OpcdirWriteFailure, LastBytesOverTheFileSizeLimitExitOneNamingTheCause) {
    constexpr rlim_t kLimit = 64 * 1024;
    TempDir dir;
    writeFile(dir.path() / "pkg/[Content_Types].xml", kTypes);
    writeFile(dir.path() / "big.bin", std::string(kLimit + 50, 'x'));
    const TreeSnapshot before = withoutLockFiles(snapshotTree(dir.path()));
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::signal(SIGXFSZ, SIG_IGN);  // inherited by the tool: the write fails with EFBIG instead
        const rlimit limit{kLimit, kLimit};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const RunResult result = runOpcdir(dir.path(), {"put", "pkg", "/big.bin", "big.bin"});
        const std::string report = std::to_string(result.status) + " " + result.err;
        (void)!::write(channel[1], report.data(), report.size());
        ::_exit(0);
    }
    ::close(channel[1]);
    std::string report(512, '\0');
    report.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::read(channel[0], report.data(), report.size()))));
    ::close(channel[0]);
    ::waitpid(pid, nullptr, 0);
    EXPECT_EQ(report, "1 opcdir: pkg: cannot write part '/big.bin': File too large\n");
    EXPECT_EQ(withoutLockFiles(snapshotTree(dir.path())), before);
}

struct Attributes {
    mode_t mode;
    uid_t owner;
    gid_t group;
    bool operator==(const Attributes& other) const {
        return mode == other.mode && owner == other.owner && group == other.group;
    }
};

std::ostream& operator<<(std::ostream& out, const Attributes& a) {
    return out << std::oct << a.mode << std::dec << " " << a.owner << ":" << a.group;
}

Attributes attributesOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return {info.st_mode & 07777, info.st_uid, info.st_gid};
}

// A private package (and, as root, one owned by someone else) stays so
// across put and rm.
TEST(OpcdirPermissions, PutAndRmKeepModesAndOwners) {
    const bool root = ::geteuid() == 0;
    const Attributes folder{0700, root ? 4321 : ::geteuid(), root ? 4322 : ::getegid()};
    const Attributes file{0600, folder.owner, folder.group};
    const Attributes rewritten{0640, folder.owner, folder.group};
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"put", "pkg", "/word/document.xml", "new.xml"}, {"rm", "pkg", "/word/styles.xml"}}) {
        SCOPED_TRACE(arguments[0]);
        TempDir dir;
        writeFile(dir.path() / "new.xml", "<new/>");
        for (const char* name : {"[Content_Types].xml", "word/document.xml", "word/styles.xml"})
            writeFile(dir.path() / "pkg" / name, "<old/>");
        for (const auto& [path, a] :
             std::vector<std::pair<std::string, Attributes>>{{"pkg", folder},
                                                             {"pkg/word", folder},
                                                             {"pkg/[Content_Types].xml", file},
                                                             {"pkg/word/document.xml", rewritten},
                                                             {"pkg/word/styles.xml", file}}) {
            const fs::path at = dir.path() / path;
            if (root) {
                ASSERT_EQ(::lchown(at.c_str(), a.owner, a.group), 0);
            }
            ASSERT_EQ(::chmod(at.c_str(), a.mode), 0);
        }
        ASSERT_EQ(runOpcdir(dir.path(), arguments).status, 0);
        EXPECT_EQ(attributesOf(dir.path() / "pkg"), folder);
        EXPECT_EQ(attributesOf(dir.path() / "pkg/word"), folder);
        EXPECT_EQ(attributesOf(dir.path() / "pkg/[Content_Types].xml"), file);
        EXPECT_EQ(attributesOf(dir.path() / "pkg/word/document.xml"), rewritten);
        EXPECT_EQ(readFile(dir.path() / "pkg/word/document.xml"), arguments[0] == "put" ? "<new/>" : "<old/>");
        EXPECT_EQ(fs::exists(dir.path() / "pkg/word/styles.xml"), arguments[0] == "put");
    }
}

}  // namespace
}  // namespace opc::test
