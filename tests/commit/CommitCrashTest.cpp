// A process killed at a random moment of its commit must leave the old
// package or the new one at the package path, or, in the instant between the
// two renames, nothing there and the old package whole beside it.

#include "CommitFixture.h"

#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#if defined(__SANITIZE_ADDRESS__)
#define OPC_TEST_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define OPC_TEST_UNDER_ASAN 1
#endif
#endif

namespace opc::test::commit {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using opc::fspackage::FileSystemPartInfo;
using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::OpenMode;

// Sized so that the rounds take well under a minute on two cores; on a busy
// machine the kills stop when kBudget is spent.
#ifdef OPC_TEST_UNDER_ASAN
constexpr int kParts = 1000;
constexpr int kKills = 30;
#else
constexpr int kParts = 2000;
constexpr int kKills = 40;
#endif
constexpr int kCreated = kParts / 30;
constexpr int kMinimumKills = 10;
constexpr auto kBudget = std::chrono::seconds(30);

std::string partPath(int i) {
    return "d" + std::to_string(i % 10) + "/s" + std::to_string(i / 10 % 10) + "/part" + std::to_string(i) + ".xml";
}
std::string createdPath(int j) { return "added/a" + std::to_string(j % 5) + "/new" + std::to_string(j) + ".xml"; }
bool rewrites(int i) { return i % 10 == 3; }
bool deletes(int i) { return i % 15 == 7 && !rewrites(i); }

Files oldFiles() {
    Files files{{"[Content_Types].xml", "<Types/>"}};
    for (int i = 0; i < kParts; ++i) {
        files[partPath(i)] = "part " + std::to_string(i) + " " + std::string(static_cast<std::size_t>(40 + i % 200), 'a' + i % 26);
    }
    return files;
}

Files newFiles() {
    Files files = oldFiles();
    for (int i = 0; i < kParts; ++i) {
        if (rewrites(i)) files[partPath(i)] = "rewritten " + std::to_string(i);
        if (deletes(i)) files.erase(partPath(i));
    }
    for (int j = 0; j < kCreated; ++j) files[createdPath(j)] = "created " + std::to_string(j);
    return files;
}

void writeContent(opc::interfaces::IPhysicalOutputStream* stream, const std::string& content) {
    stream->write(content.data(), static_cast<std::streamsize>(content.size()));
    stream->close();  // keeps the number of open files small
}

// Runs in the forked child: opens the package, makes the changes, tells the
// parent through readyFd, commits. Never returns.
[[noreturn]] void commitInChild(const fs::path& packagePath, int readyFd) {
    int status = 0;
    try {
        FileSystemPhysicalPackage package(fromUtf8(packagePath.native()));
        package.open(OpenMode::ReadWrite);
        std::unordered_map<std::u16string, opc::interfaces::IPhysicalPart*> byName;
        for (auto* part : package.getParts()) byName[part->getName()] = part;
        for (int i = 0; i < kParts; ++i) {
            const std::u16string name = u"/" + fromUtf8(partPath(i));
            if (rewrites(i)) writeContent(byName.at(name)->getOutputStream(), "rewritten " + std::to_string(i));
            if (deletes(i)) package.deletePart(name);
        }
        for (int j = 0; j < kCreated; ++j) {
            writeContent(package.createPart(u"/" + fromUtf8(createdPath(j)), u"text/xml", FileSystemPartInfo())
                             ->getOutputStream(),
                         "created " + std::to_string(j));
        }
        const char ready = 'r';
        if (::write(readyFd, &ready, 1) != 1) status = 2;
        package.close(false);
    } catch (...) {
        status = 3;
    }
    ::_exit(status);
}

struct Child {
    pid_t pid = -1;
    Clock::time_point commitStart;
};

// Forks a child that commits the package at packagePath; returns once the
// child is about to commit.
Child startCommit(const fs::path& packagePath) {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        ::close(fds[0]);
        commitInChild(packagePath, fds[1]);
    }
    ::close(fds[1]);
    char ready = 0;
    const ssize_t got = ::read(fds[0], &ready, 1);
    ::close(fds[0]);
    if (got != 1) throw std::runtime_error("the child died before its commit");
    return {pid, Clock::now()};
}

int waitFor(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) throw std::runtime_error("waitpid failed");
    }
    return status;
}

enum class Outcome { Old, New, OldAside, Broken };

Outcome classify(const TreeSnapshot& after, const TreeSnapshot& oldTree, const TreeSnapshot& newTree) {
    const TreeSnapshot atPath = subtree(after, "pkg", "pkg");
    if (!atPath.empty()) {
        if (atPath == oldTree) return Outcome::Old;
        if (atPath == newTree) return Outcome::New;
        return Outcome::Broken;
    }
    for (const std::string& name : topLevelNames(after)) {
        if (name.rfind(".opc-", 0) == 0 && subtree(after, name, "pkg") == oldTree) return Outcome::OldAside;
    }
    return Outcome::Broken;
}

// Links rather than copies: a package's files are only ever read, so the
// links are as good as copies and take a tenth of the time to make. A write
// through one would still show, as every round compares with trees held in
// memory.
void restore(const fs::path& pristine, const fs::path& work) {
    fs::remove_all(work);
    fs::create_directories(work);
    fs::copy(pristine, work / "pkg", fs::copy_options::recursive | fs::copy_options::create_hard_links);
}

TEST(CommitCrash, KilledCommitLeavesOldOrNewPackage) {
    TempDir dir;
    const fs::path pristine = dir.path() / "pristine";
    const fs::path work = dir.path() / "work";
    writeFiles(pristine, oldFiles());
    const TreeSnapshot oldTree = treeOf("pkg", oldFiles());
    const TreeSnapshot newTree = treeOf("pkg", newFiles());

    // How long a commit takes here, from the moment the child is ready.
    std::vector<double> durations;
    for (int round = 0; round < 3; ++round) {
        restore(pristine, work);
        const Child child = startCommit(work / "pkg");
        const int status = waitFor(child.pid);
        durations.push_back(std::chrono::duration<double, std::micro>(Clock::now() - child.commitStart).count());
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        ASSERT_EQ(snapshotTree(work), newTree);
    }
    const double commitMicros = *std::max_element(durations.begin(), durations.end());

    // Kills spread over the commit and beyond its end: with other work on the
    // machine a commit can take longer than it did just now, and the swap at
    // its end is the moment that matters most.
    std::mt19937 random(20240613);
    std::uniform_real_distribution<double> delay(0.0, commitMicros * 1.5);
    int counts[4] = {0, 0, 0, 0};
    int leftovers = 0;
    int finished = 0;
    int kills = 0;
    const Clock::time_point deadline = Clock::now() + kBudget;
    for (int round = 0; round < kKills && (round < kMinimumKills || Clock::now() < deadline); ++round, ++kills) {
        restore(pristine, work);
        const auto wait = std::chrono::microseconds(static_cast<long>(delay(random)));
        const Child child = startCommit(work / "pkg");
        std::this_thread::sleep_until(child.commitStart + wait);
        ::kill(child.pid, SIGKILL);
        const int status = waitFor(child.pid);
        if (WIFEXITED(status)) {
            ASSERT_EQ(WEXITSTATUS(status), 0);
            ++finished;
        }

        const TreeSnapshot after = snapshotTree(work);
        const Outcome outcome = classify(after, oldTree, newTree);
        ++counts[static_cast<int>(outcome)];
        // Hidden folders beside the package other than a package moved aside:
        // staged changes a killed process could not remove.
        std::size_t hidden = 0;
        for (const std::string& name : topLevelNames(after)) hidden += name != "pkg";
        if (hidden > (outcome == Outcome::OldAside ? 1u : 0u)) ++leftovers;
        EXPECT_NE(outcome, Outcome::Broken) << "round " << round << ", killed after " << wait.count() << " us";
    }

    RecordProperty("commit_us", static_cast<int>(commitMicros));
    RecordProperty("kills", kills);
    RecordProperty("old_package", counts[0]);
    RecordProperty("new_package", counts[1]);
    RecordProperty("old_package_aside", counts[2]);
    RecordProperty("broken", counts[3]);
    RecordProperty("hidden_folders_left", leftovers);
    std::printf("%d parts, commit %.0f us; %d kills: old %d, new %d, old aside %d, broken %d; "
                "%d finished before the kill, %d left hidden folders\n",
                kParts, commitMicros, kills, counts[0], counts[1], counts[2], counts[3], finished, leftovers);
    EXPECT_GT(counts[0], 0) << "no kill landed inside a commit";
}

}  // namespace
}  // namespace opc::test::commit
