// A process killed at any moment of a commit, then recover() by another:
// the old package or the new one at the package path, byte for byte, and
// nothing beside it.

#include "CommitFixture.h"

#include "support/ChildProcess.h"
#include "support/SyscallTrace.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

namespace opc::test::commit {
namespace {

using Clock = std::chrono::steady_clock;

// The raw wait status, which tells a kill from an exit.
int statusOf(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
}

bool killed(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }
bool succeeded(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }

enum Outcome { Old, New, Broken };

Outcome recoverAndClassify(const fs::path& work,
                           const TreeSnapshot& oldTree,
                           const TreeSnapshot& newTree,
                           std::map<RecoveryReport::Swap, int>* swaps = nullptr) {
    const RecoveryReport report = LocalFileSystemOps().recover(fromUtf8((work / "pkg").native()));
    if (swaps != nullptr) ++(*swaps)[report.swap];
    const TreeSnapshot after = snapshotTree(work);
    EXPECT_TRUE(after == oldTree || after == newTree) << ::testing::PrintToString(after);
    return after == oldTree ? Old : after == newTree ? New : Broken;
}

// Every call that changes the disk, from the start of close(false) to its
// end, stops the committing process once; the one before the second rename
// leaves the package path empty. Without syncs, which change nothing a kill
// can see and cost a device flush each.
TEST(CommitCrash, KillAtEveryStepThenRecoverLeavesOldOrNewPackage) {
    TempDir dir;
    const fs::path work = dir.path() / "work";
    const TreeSnapshot oldTree = (writeSample(work / "pkg"), snapshotTree(work)), newTree = sampleAfterCommit();
    std::map<RecoveryReport::Swap, int> swaps;
    int outcomes[3] = {0, 0, 0}, emptyPath = 0;
    Outcome last = Old;
    std::size_t step = 1;
    for (;; ++step) {
        SCOPED_TRACE("killed at call " + std::to_string(step));
        fs::remove_all(work);
        writeSample(work / "pkg");
        const int status = statusOf(forkChild([&] {
            FileSystemPhysicalPackage package(fromUtf8((work / "pkg").native()));
            package.getLocalFSImpl().setDurable(false);
            package.open(OpenMode::ReadWrite);
            changeSample(package);
            SyscallTrace::killAt(step);
            package.close(false);
            return 0;
        }));
        if (succeeded(status)) break;  // the commit outran every kill
        ASSERT_TRUE(killed(status)) << "status " << status;
        emptyPath += !fs::exists(work / "pkg");
        const Outcome outcome = recoverAndClassify(work, oldTree, newTree, &swaps);
        ASSERT_NE(outcome, Broken);
        ASSERT_FALSE(last == New && outcome == Old) << "a later kill brought the old package back";
        ++outcomes[outcome];
        last = outcome;
    }
    EXPECT_EQ(snapshotTree(work), newTree);
    RecordProperty("steps", static_cast<int>(step));
    EXPECT_GE(step, 20u) << "too few steps: the kills did not reach into the commit";
    EXPECT_GT(outcomes[Old], 0);
    EXPECT_GT(outcomes[New], 0);
    EXPECT_GT(emptyPath, 0) << "no kill landed between the two renames";
    EXPECT_GT(swaps[RecoveryReport::Swap::RestoredOld], 0);
    EXPECT_GT(swaps[RecoveryReport::Swap::CompletedNew], 0);
}

// Kills at random moments from the start of the process, staging included,
// of a commit of a larger package. At most kKills rounds; past kMinimumKills
// only while kBudget lasts, so a busy machine shortens the test rather than
// stalling it.
constexpr int kParts = 300, kKills = 30, kMinimumKills = 8;
constexpr auto kBudget = std::chrono::seconds(8);

std::string partPath(int i) { return std::to_string(i % 10) + "/" + std::to_string(i % 7) + "/p" + std::to_string(i); }
bool rewrites(int i) { return i % 10 == 3 || i >= kParts; }  // parts from kParts on are created
bool deletes(int i) { return i % 15 == 7 && !rewrites(i); }

Files largeFiles(bool committed) {
    Files files{{"[Content_Types].xml", "<Types/>"}};
    for (int i = 0; i < kParts + (committed ? kParts / 30 : 0); ++i) {
        if (committed && deletes(i)) continue;
        files[partPath(i)] =
            committed && rewrites(i) ? "new " + std::to_string(i) : std::to_string(i) + std::string(40 + i % 200, '.');
    }
    return files;
}

void commitLargeChanges(const fs::path& packagePath) {
    FileSystemPhysicalPackage package(fromUtf8(packagePath.native()));
    package.getLocalFSImpl().setDurable(false);
    package.open(OpenMode::ReadWrite);
    for (int i = 0; i < kParts + kParts / 30; ++i) {
        const std::u16string name = u"/" + fromUtf8(partPath(i));
        if (i >= kParts) package.createPart(name, u"", FileSystemPartInfo());
        if (rewrites(i)) {
            auto* stream = partNamed(package, name)->getOutputStream();
            writeAll(stream, "new " + std::to_string(i));
            stream->close();
        }
        if (deletes(i)) package.deletePart(name);
    }
    package.close(false);
}

TEST(CommitCrash, KilledAtRandomThenRecoverLeavesOldOrNewPackage) {
    TempDir dir;
    const fs::path work = dir.path() / "work";
    const auto reset = [&] {
        fs::remove_all(work);
        for (const auto& [path, bytes] : largeFiles(false)) writeFile(work / "pkg" / path, bytes);
    };
    const TreeSnapshot oldTree = treeOf(largeFiles(false)), newTree = treeOf(largeFiles(true));

    double micros = 0;
    for (int round = 0; round < 2; ++round) {
        reset();
        const auto start = Clock::now();
        ASSERT_TRUE(succeeded(statusOf(forkChild([&] { return commitLargeChanges(work / "pkg"), 0; }))));
        micros = std::max(micros, std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        ASSERT_EQ(snapshotTree(work), newTree);
    }

    std::mt19937 random(20240613);
    std::uniform_real_distribution<double> delay(0.0, micros * 1.2);
    int counts[3] = {0, 0, 0}, kills = 0;
    for (const auto deadline = Clock::now() + kBudget;
         kills < kKills && (kills < kMinimumKills || Clock::now() < deadline); ++kills) {
        reset();
        const auto wait = std::chrono::microseconds(static_cast<long>(delay(random)));
        const auto start = Clock::now();
        const pid_t pid = forkChild([&] { return commitLargeChanges(work / "pkg"), 0; });
        std::this_thread::sleep_until(start + wait);
        ::kill(pid, SIGKILL);
        const int status = statusOf(pid);
        ASSERT_TRUE(killed(status) || succeeded(status)) << "status " << status;
        SCOPED_TRACE("round " + std::to_string(kills) + ", killed after " + std::to_string(wait.count()) + " us");
        ++counts[recoverAndClassify(work, oldTree, newTree)];
    }
    std::printf("%d parts, commit %.0f us; %d kills: old %d, new %d, broken %d\n", kParts, micros, kills, counts[Old],
                counts[New], counts[Broken]);
    EXPECT_GT(counts[Old], 0) << "no kill landed before the commit's end";
}

}  // namespace
}  // namespace opc::test::commit
