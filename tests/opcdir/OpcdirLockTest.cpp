// opcdir takes the package lock for every command: readers share it, writers
// have it alone, so commands from many processes never lose an update or
// read a state that was never committed.

#include "OpcdirHarness.h"
#include "support/ChildProcess.h"
#include "support/FaultyFileSystemOps.h"

#include <opcfspackage/PackageLock.h>

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
using opc::LockMode;
using opc::fspackage::PackageLock;

const std::string kTypes = "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\"/>";

// Runs the opcdir binary in folder `in`, its output thrown away and its
// standard error into errFile; returns its process.
pid_t startOpcdir(const fs::path& in, const std::vector<std::string>& arguments, const fs::path& errFile) {
    return forkChild([&] {
        const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        if (err < 0 || null < 0 || ::chdir(in.c_str()) != 0 || ::dup2(null, 0) < 0 || ::dup2(null, 1) < 0 ||
            ::dup2(err, 2) < 0)
            return 98;
        std::vector<char*> argv{const_cast<char*>(OPCDIR_PATH)};
        for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        ::execv(OPCDIR_PATH, argv.data());
        return 97;
    });
}

// Runs command lines one after another in a child until stop is closed;
// exits 0 when every one succeeded and check approved it, else 1 with the
// failure in log.
pid_t loopUntilClosed(const int stop[2],
                      const fs::path& in,
                      const fs::path& log,
                      const std::function<std::vector<std::string>(int)>& arguments,
                      const std::function<std::string(int)>& check) {
    const int readEnd = stop[0];
    const int writeEnd = stop[1];
    return forkChild([=] {
        ::close(writeEnd);
        int runs = 0;
        for (char byte = 0;; ++runs) {
            pollfd ready{readEnd, POLLIN, 0};
            if (::poll(&ready, 1, 0) == 1 && ::read(readEnd, &byte, 1) == 0) break;
            const RunResult result = runOpcdir(in, arguments(runs));
            const std::string wrong = result.status != 0 ? result.err : check(runs);
            if (!wrong.empty()) {
                writeFile(log, "run " + std::to_string(runs) + ": " + wrong);
                return 1;
            }
        }
        writeFile(log, std::to_string(runs));
        return 0;
    });
}

// A package "pkg" holding /a.xml, in a fresh folder that is the current one
// while the test runs, so that messages name the package as typed.
struct Turns : ::testing::Test {
    void SetUp() override {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
        writeFile(dir.path() / "pkg" / "a.xml", "a");
        writeFile(dir.path() / "in.xml", "<in/>");
        fs::current_path(dir.path());
    }
    void TearDown() override { fs::current_path(cwd); }
    std::u16string pkg() const { return dir.u16("pkg"); }
    RunResult run(const std::vector<std::string>& arguments, bool errIsTerminal = false) {
        std::istringstream in;
        std::ostringstream out;
        std::ostringstream err;
        opcdir::Io io{in, out, err, errIsTerminal};
        const int status = opcdir::run(arguments, io, ops);
        return {status, out.str(), err.str()};
    }
    TempDir dir;
    FaultyFileSystemOps ops;
    fs::path cwd = fs::current_path();
};

TEST_F(Turns, ReadersShareThePackageAndWritersHaveItAlone) {
    const std::vector<std::pair<std::vector<std::string>, bool>> commands = {
        {{"ls", "pkg"}, false},
        {{"cat", "pkg", "/a.xml"}, false},
        {{"pack", "pkg", "out.docx"}, false},
        {{"put", "pkg", "/b.xml", "in.xml"}, true},
        {{"rm", "pkg", "/a.xml"}, true},
        {{"new", "pkg"}, true},
        {{"unpack", "--force", "out.docx", "pkg"}, true},
    };
    runOpcdirWith(ops, {"pack", "pkg", "out.docx"});
    const TreeSnapshot before = snapshotTree(dir.path());
    for (const LockMode held : {LockMode::Shared, LockMode::Exclusive}) {
        const PackageLock lock(pkg(), held);
        for (const auto& [arguments, writes] : commands) {
            SCOPED_TRACE(arguments[0] + (held == LockMode::Shared ? " under a reader" : " under a writer"));
            std::vector<std::string> waiting = arguments;
            waiting.insert(waiting.begin() + 1, {"--wait", "0"});
            const RunResult result = run(waiting);
            if (held == LockMode::Shared && !writes) {
                EXPECT_EQ(result.status, 0) << result.err;
            } else {
                EXPECT_EQ(result.status, 1);
                EXPECT_EQ(result.err, "opcdir: pkg: still in use by another process after --wait 0 s\n");
                EXPECT_EQ(result.out, "");
            }
            EXPECT_EQ(snapshotTree(dir.path()), before);
        }
    }
}

TEST_F(Turns, ATerminalIsToldOnceAfterASecondAndTheWaitEndsWithTheHolder) {
    TreeSnapshot before;
    {
        const PackageLock lock(pkg(), LockMode::Exclusive);
        before = snapshotTree(dir.path());
        const RunResult result = run({"ls", "--wait", "1.2", "pkg"}, true);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err,
                  "opcdir: pkg: waiting for another process using the package...\n"
                  "opcdir: pkg: still in use by another process after --wait 1.2 s\n");
        EXPECT_EQ(run({"cat", "--wait", "0.1", "pkg", "/a.xml"}, true).err,
                  "opcdir: pkg: still in use by another process after --wait 0.1 s\n");
    }
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = forkChild([&] {
        const PackageLock lock(pkg(), LockMode::Exclusive);
        if (::write(ready[1], "x", 1) != 1) return 1;
        std::this_thread::sleep_for(std::chrono::seconds(2));
        return 0;
    });
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    const RunResult result = run({"cat", "pkg", "/a.xml"}, true);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "a");
    EXPECT_EQ(result.err, "opcdir: pkg: waiting for another process using the package...\n");
    EXPECT_EQ(waitChild(holder), 0);
    EXPECT_EQ(snapshotTree(dir.path()), before);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(Turns, RefusalsOfTheLockAreOneLineAndLeaveEverythingAsItWas) {
    const TreeSnapshot before = snapshotTree(dir.path());
    struct Case {
        std::vector<std::string> arguments;
        int lockError;  // injected into lockFile, or 0
        int status;
        std::string err;
    };
    const std::vector<Case> cases = {
        {{"put", "pkg", "/b.xml", "in.xml"}, EIO, 1, "opcdir: pkg: cannot lock the package: Input/output error\n"},
        {{"ls", "pkg"}, ENOLCK, 1, "opcdir: pkg: cannot lock the package: No locks available\n"},
        {{"rm", "pkg", "/a.xml"}, EACCES, 1, "opcdir: pkg: cannot lock the package: Permission denied\n"},
        {{"ls", "--wait", "soon", "pkg"},
         0,
         2,
         "opcdir: --wait needs a number of seconds such as 5 or 0.5, not 'soon'\n"},
        {{"ls", "--wait", "-1", "pkg"}, 0, 2, "opcdir: --wait needs a number of seconds such as 5 or 0.5, not '-1'\n"},
        {{"put", "missing/pkg", "/b.xml", "in.xml"}, 0, 1, "opcdir: missing/pkg: no such package folder\n"},
        {{"ls", "missing/pkg"}, 0, 1, "opcdir: missing/pkg: no such package folder\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.err);
        ops.clearFailures();
        if (c.lockError != 0) ops.failCall(Hook::LockFile, ops.count(Hook::LockFile) + 1, c.lockError);
        const RunResult result = run(c.arguments);
        EXPECT_EQ(result.status, c.status);
        EXPECT_EQ(result.err, c.err);
        EXPECT_EQ(snapshotTree(dir.path()), before);
    }
    // Reading goes ahead where the lock file may not be made.
    ops.failCall(Hook::LockFile, ops.count(Hook::LockFile) + 1, EROFS);
    EXPECT_EQ(run({"cat", "pkg", "a.xml"}).out, "a");
    // A package to create in a folder yet to be made goes ahead unlocked.
    EXPECT_EQ(run({"new", "made/here/pkg"}).status, 0);
    EXPECT_EQ(listFolder(dir.path() / "made" / "here"), std::vector<std::string>{"pkg"});
}

TEST_F(Turns, PutsFromManyProcessesAreAllKeptWhileReadersNeverFail) {
    constexpr int kWriters = 8;
    int stop[2];
    ASSERT_EQ(::pipe2(stop, O_CLOEXEC), 0);  // closed by the commands started meanwhile
    const pid_t reader = loopUntilClosed(
        stop, dir.path(), dir.path() / "reader.log",
        [](int runs) {
            return runs % 2 == 0 ? std::vector<std::string>{"cat", "pkg", "/a.xml"}
                                 : std::vector<std::string>{"ls", "pkg"};
        },
        [](int) { return std::string(); });
    ::close(stop[0]);
    std::set<std::string> expected{"a.xml"};
    for (int round = 0; round < 2; ++round) {
        std::vector<pid_t> writers;
        for (int writer = 0; writer < kWriters; ++writer) {
            const std::string part = "w" + std::to_string(round) + "-" + std::to_string(writer) + ".xml";
            writeFile(dir.path() / "logs" / part, part);
            writers.push_back(
                startOpcdir(dir.path(), {"put", "pkg", part, "logs/" + part}, dir.path() / "logs" / (part + ".err")));
            expected.insert(part);
        }
        for (const pid_t writer : writers) EXPECT_EQ(waitChild(writer), 0);
        std::set<std::string> found;
        for (const auto& [name, bytes] : snapshotTree(dir.path() / "pkg")) {
            if (name != "[Content_Types].xml") {
                found.insert(name);
                EXPECT_EQ(bytes, name == "a.xml" ? "a" : name);
            }
        }
        EXPECT_EQ(found, expected) << "round " << round;
    }
    ::close(stop[1]);
    EXPECT_EQ(waitChild(reader), 0) << readFile(dir.path() / "reader.log");
    EXPECT_NE(readFile(dir.path() / "reader.log"), "0");
}

TEST_F(Turns, PackMeanwhileWritesAnArchiveOfOneCommittedState) {
    // Generation g: parts /a.xml, /m/n.xml and /z.xml, each holding g.
    constexpr int kGenerations = 5;
    std::vector<std::string> archives;
    for (int g = 0; g < kGenerations; ++g) {
        const std::string name = "g" + std::to_string(g);
        writeFile(dir.path() / name / "[Content_Types].xml", kTypes);
        for (const std::string part : {"a.xml", "m/n.xml", "z.xml"}) writeFile(dir.path() / name / part, name);
        ASSERT_EQ(
            runOpcdirWith(ops, {"pack", (dir.path() / name).string(), (dir.path() / (name + ".docx")).string()}).status,
            0);
        archives.push_back(readFile(dir.path() / (name + ".docx")));
    }
    ASSERT_EQ(runOpcdir(dir.path(), {"unpack", "--force", "g0.docx", "pkg"}).status, 0);
    int stop[2];
    ASSERT_EQ(::pipe2(stop, O_CLOEXEC), 0);  // closed by the commands started meanwhile
    fs::create_directory(dir.path() / "packed");
    const fs::path packed = dir.path() / "packed";
    const pid_t packer = loopUntilClosed(
        stop, dir.path(), dir.path() / "packer.log",
        [](int runs) {
            return std::vector<std::string>{"pack", "pkg", "packed/" + std::to_string(runs) + ".docx"};
        },
        [&](int runs) {
            const std::string bytes = readFile(packed / (std::to_string(runs) + ".docx"));
            return std::find(archives.begin(), archives.end(), bytes) != archives.end() ? "" : "a mixed archive";
        });
    ::close(stop[0]);
    std::vector<pid_t> writers;
    for (int round = 0; round < 2; ++round) {
        for (int g = 1; g < kGenerations; ++g) {
            writers.push_back(startOpcdir(dir.path(), {"unpack", "--force", "g" + std::to_string(g) + ".docx", "pkg"},
                                          dir.path() / ("unpack" + std::to_string(g) + ".err")));
        }
    }
    for (const pid_t writer : writers) EXPECT_EQ(waitChild(writer), 0);
    ::close(stop[1]);
    EXPECT_EQ(waitChild(packer), 0) << readFile(dir.path() / "packer.log");
    EXPECT_NE(readFile(dir.path() / "packer.log"), "0");
}

}  // namespace
}  // namespace opc::test
