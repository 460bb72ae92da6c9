// opcdir takes the package lock for every command: readers share it, writers
// have it alone, so that processes committing through it, by opcdir or by
// the library, never lose an update nor show a state never committed.

#include "OpcdirHarness.h"
#include "support/ChildProcess.h"
#include "support/FaultyFileSystemOps.h"
#include "support/StreamHelpers.h"
#include "support/Strings.h"
#include "support/ZipFixture.h"

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>
#include <opcfspackage/PackageLock.h>

#include <fcntl.h>
#include <poll.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <set>
#include <thread>

namespace opc::test {
namespace {

namespace fs = std::filesystem;
using opc::LockMode;
using opc::fspackage::FileSystemPhysicalPackage;
using opc::fspackage::PackageLock;
using opc::interfaces::IPhysicalPart;
using Parts = std::map<std::string, std::string>;

const std::string kTypes = "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\"/>";

// A package "pkg" holding /a.xml, in a fresh folder that is the current one
// while the test runs, so that messages name the package as typed.
struct Turns : ::testing::Test {
    void SetUp() override {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
        writeFile(dir.path() / "pkg" / "a.xml", "a");
        writeFile(dir.path() / "in.xml", "<in/>");
    }
    RunResult run(const std::string& line, bool errIsTerminal = false) {
        return runWith(ops, words(line), errIsTerminal);
    }
    TempDir dir;
    std::u16string pkg = dir.u16("pkg");
    const CurrentFolder in{dir.path()};
    FaultyFileSystemOps ops;
};

TEST_F(Turns, ReadersShareThePackageAndWritersHaveItAlone) {
    const std::vector<std::pair<std::string, bool>> commands = {
        {"ls pkg", false},
        {"cat pkg /a.xml", false},
        {"pack pkg out.docx", false},
        {"put pkg /b.xml in.xml", true},
        {"rm pkg /a.xml", true},
        {"new pkg", true},
        {"unpack --force out.docx pkg", true},
    };
    ASSERT_EQ(run("pack pkg out.docx").status, 0);
    const TreeSnapshot before = snapshotTree(dir.path());
    for (const LockMode held : {LockMode::Shared, LockMode::Exclusive}) {
        const PackageLock lock(pkg, held);
        for (const auto& [line, writes] : commands) {
            SCOPED_TRACE(line + (held == LockMode::Shared ? " under a reader" : " under a writer"));
            const std::size_t space = line.find(' ');
            const RunResult result = run(line.substr(0, space) + " --wait 0" + line.substr(space));
            if (held == LockMode::Shared && !writes) {
                EXPECT_EQ(result.status, 0) << result.err;
            } else {
                EXPECT_EQ(result,
                          (RunResult{1, "", "opcdir: pkg: still in use by another process after --wait 0 s\n"}));
            }
            EXPECT_EQ(snapshotTree(dir.path()), before);
        }
    }
}

TEST_F(Turns, ATerminalIsToldOnceAfterASecondAndTheWaitEndsWithTheHolder) {
    const std::string busy = "opcdir: pkg: still in use by another process after --wait ";
    const std::string told = "opcdir: pkg: waiting for another process using the package...\n";
    TreeSnapshot before;
    {
        const PackageLock lock(pkg, LockMode::Exclusive);
        before = snapshotTree(dir.path());
        EXPECT_EQ(run("ls --wait 1.2 pkg", true), (RunResult{1, "", told + busy + "1.2 s\n"}));
        EXPECT_EQ(run("cat --wait 0.1 pkg /a.xml", true), (RunResult{1, "", busy + "0.1 s\n"}));
    }
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = forkChild([&] {
        const PackageLock lock(pkg, LockMode::Exclusive);
        if (::write(ready[1], "x", 1) != 1) return 1;
        std::this_thread::sleep_for(std::chrono::seconds(2));
        return 0;
    });
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_EQ(run("cat pkg /a.xml", true), (RunResult{0, "a", told}));
    EXPECT_EQ(waitChild(holder), 0);
    EXPECT_EQ(snapshotTree(dir.path()), before);
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(Turns, RefusalsOfTheLockAreOneLineAndLeaveEverythingAsItWas) {
    const TreeSnapshot before = snapshotTree(dir.path());
    const std::string seconds = "--wait needs a number of seconds such as 5 or 0.5, not ";
    const std::vector<std::tuple<std::string, int, int, std::string>> cases = {
        // The command line, the error injected into the lock's service call
        // (or 0), the status and the message.
        {"put pkg /b.xml in.xml", EIO, 1, "pkg: cannot lock the package: Input/output error"},
        {"ls pkg", ENOLCK, 1, "pkg: cannot lock the package: No locks available"},
        {"rm pkg /a.xml", EACCES, 1, "pkg: cannot lock the package: Permission denied"},
        {"ls --wait soon pkg", 0, 2, seconds + "'soon'"},
        {"ls --wait -1 pkg", 0, 2, seconds + "'-1'"},
        {"put missing/pkg /b.xml in.xml", 0, 1, "missing/pkg: no such package folder"},
        {"ls missing/pkg", 0, 1, "missing/pkg: no such package folder"},
    };
    for (const auto& [line, lockError, status, message] : cases) {
        SCOPED_TRACE(line);
        ops.clearFailures();
        if (lockError != 0) ops.failCall(Hook::LockFile, ops.count(Hook::LockFile) + 1, lockError);
        EXPECT_EQ(run(line), (RunResult{status, "", "opcdir: " + message + "\n"}));
        EXPECT_EQ(snapshotTree(dir.path()), before);
    }
    // Reading goes ahead where the lock file may not be made.
    ops.failCall(Hook::LockFile, ops.count(Hook::LockFile) + 1, EROFS);
    EXPECT_EQ(run("cat pkg a.xml"), (RunResult{0, "a", ""}));
    // A package to create in a folder yet to be made goes ahead unlocked.
    EXPECT_EQ(run("new made/here/pkg").status, 0);
    EXPECT_EQ(listFolder(dir.path() / "made" / "here"), std::vector<std::string>{"pkg"});
}

// Each library commit adds a part "/w..." and rewrites /index.txt to name
// every such part; each put by opcdir adds a part "/p...". Every one of them
// holds its own name. Empty when parts are one commit's whole package, else
// what is wrong.
std::string inconsistency(const Parts& parts) {
    if (parts.count("/index.txt") == 0) return "no index";
    std::set<std::string> listed;
    std::istringstream lines(parts.at("/index.txt"));
    for (std::string line; std::getline(lines, line);) listed.insert(line);
    std::set<std::string> present;
    for (const auto& [name, content] : parts) {
        if (name[1] != 'w' && name[1] != 'p') continue;
        if (content != name) return name + " holds " + content;
        if (name[1] == 'w') present.insert(name);
    }
    return listed == present ? ""
                             : "the index names " + std::to_string(listed.size()) + " parts, the package holds " +
                                   std::to_string(present.size());
}

Parts readPackage(const std::u16string& path) {
    FileSystemPhysicalPackage package(path);
    package.open(opc::interfaces::OpenMode::Read);
    Parts parts;
    for (IPhysicalPart* part : package.getParts()) parts[toUtf8(part->getName())] = readAll(part->getInputStream());
    package.close(false);
    return parts;
}

void commitPart(const std::u16string& path, const std::string& name) {
    const PackageLock lock(path, LockMode::Exclusive);
    FileSystemPhysicalPackage package(path);
    package.open(opc::interfaces::OpenMode::ReadWrite);
    std::string index;
    IPhysicalPart* indexPart = nullptr;
    for (IPhysicalPart* part : package.getParts()) {
        const std::string partName = toUtf8(part->getName());
        if (partName == "/index.txt") indexPart = part;
        if (partName[1] == 'w') index += partName + "\n";
    }
    writeAll(package.createPart(fromUtf8(name), u"", opc::fspackage::FileSystemPartInfo())->getOutputStream(), name);
    writeAll(indexPart->getOutputStream(), index + name + "\n");
    package.close(false);
}

// Runs step(0), step(1)... in a child until stop is closed: exits 0 when
// every step gave "", else 1 with what the step gave in log.
pid_t loopUntilClosed(const int stop[2], const fs::path& log, const std::function<std::string(int)>& step) {
    const int readEnd = stop[0];
    const int writeEnd = stop[1];
    return forkChild([=] {
        ::close(writeEnd);
        int runs = 0;
        for (char byte = 0;; ++runs) {
            pollfd ready{readEnd, POLLIN, 0};
            if (::poll(&ready, 1, 0) == 1 && ::read(readEnd, &byte, 1) == 0) break;
            if (const std::string wrong = step(runs); !wrong.empty()) {
                writeFile(log, "run " + std::to_string(runs) + ": " + wrong);
                return 1;
            }
        }
        writeFile(log, std::to_string(runs));
        return 0;
    });
}

TEST_F(Turns, ManyProcessesCommitWithoutLossWhileReadersAndPackSeeOnlyWholeCommits) {
    writeFile(dir.path() / "pkg" / "index.txt", "");
    fs::create_directory(dir.path() / "packed");
    int stop[2];
    ASSERT_EQ(::pipe2(stop, O_CLOEXEC), 0);  // closed by the commands started meanwhile
    const pid_t reader = loopUntilClosed(stop, dir.path() / "reader.log", [&](int) {
        const PackageLock lock(pkg, LockMode::Shared);
        return inconsistency(readPackage(pkg));
    });
    const pid_t commands = loopUntilClosed(stop, dir.path() / "commands.log", [&](int runs) {
        const std::string archive = "packed/" + std::to_string(runs) + ".docx";
        const char* lines[] = {"cat pkg /index.txt", "ls pkg", "pack pkg "};
        const RunResult result = runOpcdir(dir.path(), words(lines[runs % 3] + (runs % 3 == 2 ? archive : "")));
        if (result.status != 0 || runs % 3 != 2) return result.err;
        Parts entries;
        for (const auto& [name, bytes] : readZipEntries(dir.path() / archive)) entries["/" + name] = bytes;
        return inconsistency(entries);
    });
    ::close(stop[0]);
    std::set<std::string> expected;
    for (int round = 0; round < 2; ++round) {
        std::vector<pid_t> writers;
        for (int writer = 0; writer < 4; ++writer) {
            const std::string suffix = std::to_string(round) + "-" + std::to_string(writer) + ".xml";
            const std::string mine = "/w" + suffix;
            const std::string theirs = "/p" + suffix;
            writeFile(dir.path() / ("in" + suffix), theirs);
            writers.push_back(forkChild([&] {
                commitPart(pkg, mine);
                return 0;
            }));
            writers.push_back(forkChild([&] {
                const RunResult result = runOpcdir(dir.path(), {"put", "pkg", theirs, "in" + suffix});
                std::fputs(result.err.c_str(), stderr);
                return result.status;
            }));
            expected.insert({mine, theirs});
        }
        for (const pid_t writer : writers) EXPECT_EQ(waitChild(writer), 0);
        const Parts parts = readPackage(pkg);
        EXPECT_EQ(inconsistency(parts), "");
        std::set<std::string> found;
        for (const auto& [name, content] : parts)
            if (name[1] == 'w' || name[1] == 'p') found.insert(name);
        EXPECT_EQ(found, expected) << "round " << round;
    }
    ::close(stop[1]);
    for (const auto& [child, log] : {std::pair(reader, "reader.log"), std::pair(commands, "commands.log")}) {
        EXPECT_EQ(waitChild(child), 0) << readFile(dir.path() / log);
        EXPECT_NE(readFile(dir.path() / log), "0") << log;
    }
}

}  // namespace
}  // namespace opc::test
