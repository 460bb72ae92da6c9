// A process killed at a random moment of its commit must leave the old
// package or the new one at the package path, or, in the instant between the
// two renames, nothing there and the old package whole beside it.

#include "CommitFixture.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <tuple>
#include <unordered_map>

namespace opc::test::commit {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// At most kKills rounds; past kMinimumKills only while kBudget lasts, so a
// busy machine shortens the test rather than stalling it.
constexpr int kParts = 1000, kCreated = kParts / 30, kKills = 40, kMinimumKills = 10;
constexpr auto kBudget = std::chrono::seconds(30);

std::string partPath(int i) { return std::to_string(i % 10) + "/" + std::to_string(i % 7) + "/p" + std::to_string(i); }
// Parts from kParts on are created by the commit.
bool rewrites(int i) { return i % 10 == 3 || i >= kParts; }
bool deletes(int i) { return i % 15 == 7 && !rewrites(i); }

Files packageFiles(bool committed) {
    Files files{{"[Content_Types].xml", "<Types/>"}};
    for (int i = 0; i < kParts + (committed ? kCreated : 0); ++i) {
        if (committed && deletes(i)) continue;
        files[partPath(i)] =
            committed && rewrites(i) ? "new " + std::to_string(i) : std::to_string(i) + std::string(40 + i % 200, '.');
    }
    return files;
}

// Puts the old package at work/pkg, stages the changes, then forks a child
// that commits them; the parent's package must outlive the child's commit.
// Hard links rather than copies, as the package's files are only ever read;
// a write through one would still show against the trees held in memory.
std::tuple<std::unique_ptr<FileSystemPhysicalPackage>, pid_t, Clock::time_point> startCommit(const fs::path& pristine,
                                                                                             const fs::path& work) {
    fs::remove_all(work);
    fs::create_directories(work);
    fs::copy(pristine, work / "pkg", fs::copy_options::recursive | fs::copy_options::create_hard_links);
    auto package = std::make_unique<FileSystemPhysicalPackage>(fromUtf8((work / "pkg").native()));
    package->open(OpenMode::ReadWrite);
    std::unordered_map<std::u16string, opc::interfaces::IPhysicalPart*> byName;
    for (auto* part : package->getParts()) byName[part->getName()] = part;
    for (int i = 0; i < kParts + kCreated; ++i) {
        const std::u16string name = u"/" + fromUtf8(partPath(i));
        if (i >= kParts) byName[name] = package->createPart(name, u"", FileSystemPartInfo());
        if (rewrites(i)) {
            auto* stream = byName.at(name)->getOutputStream();
            writeAll(stream, "new " + std::to_string(i));
            stream->close();  // keeps the number of open files small
        }
        if (deletes(i)) package->deletePart(name);
    }
    const Clock::time_point start = Clock::now();
    const pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        try {
            package->close(false);
        } catch (...) {
            ::_exit(3);
        }
        ::_exit(0);
    }
    return {std::move(package), pid, start};
}

enum Outcome { Old, New, OldAside, Broken };

Outcome classify(const TreeSnapshot& after, const TreeSnapshot& oldTree, const TreeSnapshot& newTree) {
    const TreeSnapshot atPath = subtree(after, "pkg");
    if (!atPath.empty()) return atPath == oldTree ? Old : atPath == newTree ? New : Broken;
    for (const std::string& name : topLevelNames(after)) {
        if (name.rfind(".opc-", 0) == 0 && subtree(after, name) == oldTree) return OldAside;
    }
    return Broken;
}

TEST(CommitCrash, KilledCommitLeavesOldOrNewPackage) {
    TempDir dir;
    const fs::path pristine = dir.path() / "pristine", work = dir.path() / "work";
    for (const auto& [path, bytes] : packageFiles(false)) writeFile(pristine / path, bytes);
    const TreeSnapshot oldTree = treeOf(packageFiles(false)), newTree = treeOf(packageFiles(true));

    // How long a commit takes here, from the fork.
    double commitMicros = 0;
    for (int round = 0; round < 3; ++round) {
        const auto [package, pid, start] = startCommit(pristine, work);
        int status = 0;
        ::waitpid(pid, &status, 0);
        commitMicros = std::max(commitMicros, std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
        ASSERT_EQ(snapshotTree(work), newTree);
    }

    // Kills spread over the commit and beyond its end: under load a commit
    // can take longer than just now, and the swap at its end matters most.
    std::mt19937 random(20240613);
    std::uniform_real_distribution<double> delay(0.0, commitMicros * 1.5);
    int counts[4] = {0, 0, 0, 0}, leftovers = 0, finished = 0, kills = 0;
    for (const auto deadline = Clock::now() + kBudget;
         kills < kKills && (kills < kMinimumKills || Clock::now() < deadline); ++kills) {
        const auto wait = std::chrono::microseconds(static_cast<long>(delay(random)));
        const auto [package, pid, start] = startCommit(pristine, work);
        std::this_thread::sleep_until(start + wait);
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        ASSERT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) != 0) << "status " << status;
        finished += WIFEXITED(status);
        const TreeSnapshot after = snapshotTree(work);
        const Outcome outcome = classify(after, oldTree, newTree);
        ++counts[outcome];
        // Hidden folders other than a package moved aside: staged changes a
        // killed process could not remove.
        leftovers += topLevelNames(after).size() - after.count("pkg/") > (outcome == OldAside ? 1u : 0u);
        EXPECT_NE(outcome, Broken) << "round " << kills << ", killed after " << wait.count() << " us";
    }

    const char* names[] = {"old_package", "new_package", "old_package_aside", "broken"};
    for (const Outcome outcome : {Old, New, OldAside, Broken}) RecordProperty(names[outcome], counts[outcome]);
    RecordProperty("commit_us", static_cast<int>(commitMicros));
    RecordProperty("kills", kills);
    RecordProperty("hidden_folders_left", leftovers);
    std::printf(
        "%d parts, commit %.0f us; %d kills: old %d, new %d, old aside %d, broken %d; "
        "%d finished before the kill, %d left hidden folders\n",
        kParts, commitMicros, kills, counts[Old], counts[New], counts[OldAside], counts[Broken], finished, leftovers);
    EXPECT_GT(counts[Old], 0) << "no kill landed inside a commit";
}

}  // namespace
}  // namespace opc::test::commit
