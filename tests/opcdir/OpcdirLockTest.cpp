// opcdir takes the package lock for every command: readers share it, writers
// have it alone, so that processes committing through it, by opcdir or by
// the library, never lose an update nor show a state never committed.

#include "OpcdirHarness.h"
#include "support/ChildProcess.h"
#include "support/FaultyFileSystemOps.h"
#include "support/RawZip.h"
#include "support/StreamHelpers.h"

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
    // The readers, then the writers; diff, check and textconv lock the
    // operands that are folders, and a ZIP file alone needs no lock.
    // Each reader with its status on failure (diff and check: 2).
    const std::vector<std::pair<std::string, int>> readers = {
        {"ls pkg", 1},    {"cat pkg /a.xml", 1}, {"pack pkg out.docx", 1}, {"diff out.docx pkg", 2},
        {"check pkg", 2}, {"textconv pkg", 1}};
    const std::vector<std::string> writers = {"put pkg /b.xml in.xml", "rm pkg /a.xml", "new pkg",
                                              "unpack --force out.docx pkg"};
    const auto waitingNot = [&](const std::string& line) {
        const std::size_t space = line.find(' ');
        return run(line.substr(0, space) + " --wait 0" + line.substr(space));
    };
    ASSERT_EQ(run("pack pkg out.docx").status, 0);
    std::vector<RunResult> unlocked;
    for (const auto& reader : readers) unlocked.push_back(run(reader.first));
    const RunResult zipAlone = run("textconv out.docx");
    ASSERT_EQ(zipAlone.status, 0);
    const TreeSnapshot before = snapshotTree(dir.path());
    const RunResult busy{1, "", "opcdir: pkg: still in use by another process after --wait 0 s\n"};
    for (const LockMode held : {LockMode::Shared, LockMode::Exclusive}) {
        const PackageLock lock(pkg, held);
        const std::string under = held == LockMode::Shared ? " under a reader" : " under a writer";
        for (std::size_t i = 0; i < readers.size(); ++i) {
            const auto& [line, failure] = readers[i];
            SCOPED_TRACE(line + under);
            const RunResult refused{failure, "", busy.err};
            EXPECT_EQ(waitingNot(line), held == LockMode::Shared ? unlocked[i] : refused);
        }
        for (const std::string& line : writers) {
            SCOPED_TRACE(line + under);
            EXPECT_EQ(waitingNot(line), busy);
        }
        EXPECT_EQ(waitingNot("textconv out.docx"), zipAlone);
        EXPECT_EQ(snapshotTree(dir.path()), before);
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
        {"ls --wait soon pkg", 0, 2, seconds + "'soon'"},
        {"ls --wait -1 pkg", 0, 2, seconds + "'-1'"},
        {"put missing/pkg /b.xml in.xml", 0, 1, "missing/pkg: no such package folder"},
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
}

// A package created in a folder yet to be made is locked once the folder is
// made: a holder keeps the command out, a command failing after it took the
// lock removes the folders it made, one that succeeds keeps them.
TEST_F(Turns, CreatingInAFolderYetToBeMadeLocksOnceTheFolderIsMade) {
    RawZip zip;
    zip.stored("[Content_Types].xml", kTypes);
    zip.write(dir.path() / "a.zip");
    const fs::path made = dir.path() / "made";
    std::unique_ptr<PackageLock> holder;
    ops.setBeforeCall([&](const Call& call) {
        if (call.hook == Hook::LockFile && call.path == dir.u16("made/here/.opc-lock-pkg") && holder == nullptr)
            holder = std::make_unique<PackageLock>(dir.u16("made/here/pkg"), LockMode::Exclusive);
    });
    for (const std::string line : {"new --wait 0.1 made/here/pkg", "unpack --wait 0.1 a.zip made/here/pkg"}) {
        SCOPED_TRACE(line);
        EXPECT_EQ(run(line),
                  (RunResult{1, "", "opcdir: made/here/pkg: still in use by another process after --wait 0.1 s\n"}));
        EXPECT_EQ(listFolder(made / "here"), std::vector<std::string>{".opc-lock-pkg"});
        holder.reset();
        fs::remove_all(made);
    }
    ops.setBeforeCall(nullptr);
    for (const std::string line : {"new made/here/pkg", "unpack a.zip made/here/pkg"}) {
        SCOPED_TRACE(line);
        ops.failCall(Hook::Recover, ops.count(Hook::Recover) + 1);
        const RunResult result = run(line);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err.rfind("opcdir: made/here/pkg: cannot recover: ", 0), 0u) << result.err;
        EXPECT_FALSE(fs::exists(made));
        ops.clearFailures();
    }
    EXPECT_EQ(run("unpack a.zip made/here/pkg"), (RunResult{0, "", ""}));
    EXPECT_EQ(listFolder(made / "here"), (std::vector<std::string>{".opc-lock-pkg", "pkg"}));
    EXPECT_EQ(readFile(made / "here" / "pkg" / "[Content_Types].xml"), kTypes);
}

// Each library commit adds a part "w..." and rewrites index.txt to name every
// such part; each put by opcdir adds a part "p...". Every one of them holds
// its own name. Empty when these (file or entry names below the package, and
// their bytes) are one commit's whole package, else what is wrong.
std::string inconsistency(const std::map<std::string, std::string>& files) {
    if (files.count("index.txt") == 0) return "no index";
    std::set<std::string> listed;
    std::istringstream lines(files.at("index.txt"));
    for (std::string line; std::getline(lines, line);) listed.insert(line);
    std::set<std::string> present;
    for (const auto& [name, content] : files) {
        if (name[0] != 'w' && name[0] != 'p') continue;
        if (content != name) return name + " holds " + content;
        if (name[0] == 'w') present.insert(name);
    }
    return listed == present ? ""
                             : "the index names " + std::to_string(listed.size()) + " parts, the package holds " +
                                   std::to_string(present.size());
}

void commitPart(const std::u16string& path, const std::string& name) {
    const PackageLock lock(path, LockMode::Exclusive);
    FileSystemPhysicalPackage package(path);
    package.open(opc::interfaces::OpenMode::ReadWrite);
    std::string index;
    IPhysicalPart* indexPart = nullptr;
    for (IPhysicalPart* part : package.getParts()) {
        const std::string partName = toUtf8(part->getName()).substr(1);
        if (partName == "index.txt") indexPart = part;
        if (partName[0] == 'w') index += partName + "\n";
    }
    writeAll(package.createPart(fromUtf8("/" + name), u"", opc::fspackage::FileSystemPartInfo())->getOutputStream(),
             name);
    writeAll(indexPart->getOutputStream(), index + name + "\n");
    package.close(false);
}

// Library commits and opcdir puts in forked writers, opcdir readers looping
// meanwhile: none fails, and every archive packed is one whole commit.
TEST_F(Turns, ManyProcessesCommitWithoutLossWhileReadersAndPackSeeOnlyWholeCommits) {
    writeFile(dir.path() / "pkg" / "index.txt", "");
    fs::create_directory(dir.path() / "packed");
    int stop[2];
    ASSERT_EQ(::pipe2(stop, O_CLOEXEC), 0);  // closed by the commands started meanwhile
    const pid_t reader = forkChild([&] {
        ::close(stop[1]);
        int runs = 0;
        for (char byte = 0;; ++runs) {
            pollfd ready{stop[0], POLLIN, 0};
            if (::poll(&ready, 1, 0) == 1 && ::read(stop[0], &byte, 1) == 0) break;
            const std::string archive = "packed/" + std::to_string(runs) + ".docx";
            const char* lines[] = {"cat pkg /index.txt", "ls pkg", "pack pkg "};
            const RunResult result = runOpcdir(dir.path(), words(lines[runs % 3] + (runs % 3 == 2 ? archive : "")));
            std::string wrong = result.err;
            if (result.status == 0 && runs % 3 == 2) {
                const ZipEntries entries = readZipEntries(dir.path() / archive);
                wrong = inconsistency(std::map<std::string, std::string>(entries.begin(), entries.end()));
            }
            if (!wrong.empty() || result.status != 0) {
                writeFile(dir.path() / "reader.log", "run " + std::to_string(runs) + ": " + wrong);
                return 1;
            }
        }
        writeFile(dir.path() / "reader.log", std::to_string(runs));
        return 0;
    });
    ::close(stop[0]);
    std::set<std::string> expected;
    for (int round = 0; round < 2; ++round) {
        std::vector<pid_t> writers;
        for (int writer = 0; writer < 4; ++writer) {
            const std::string suffix = std::to_string(round) + "-" + std::to_string(writer) + ".xml";
            writeFile(dir.path() / ("in" + suffix), "p" + suffix);
            writers.push_back(forkChild([&] {
                commitPart(pkg, "w" + suffix);
                return 0;
            }));
            writers.push_back(forkChild([&] {
                const RunResult result = runOpcdir(dir.path(), {"put", "pkg", "p" + suffix, "in" + suffix});
                std::fputs(result.err.c_str(), stderr);
                return result.status;
            }));
            expected.insert({"w" + suffix, "p" + suffix});
        }
        for (const pid_t writer : writers) EXPECT_EQ(waitChild(writer), 0);
        const TreeSnapshot files = snapshotTree(dir.path() / "pkg");
        EXPECT_EQ(inconsistency(files), "");
        std::set<std::string> found;
        for (const auto& [name, content] : files)
            if (name[0] == 'w' || name[0] == 'p') found.insert(name);
        EXPECT_EQ(found, expected) << "round " << round;
    }
    ::close(stop[1]);
    EXPECT_EQ(waitChild(reader), 0) << readFile(dir.path() / "reader.log");
    EXPECT_NE(readFile(dir.path() / "reader.log"), "0");
    for (const std::string& name : listFolder(dir.path()))
        EXPECT_TRUE(name.rfind(".opc-", 0) != 0 || name == ".opc-lock-pkg") << "left beside the package: " << name;
}

}  // namespace
}  // namespace opc::test
