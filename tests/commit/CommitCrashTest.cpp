// A process killed at any moment of a commit, then recover() by another:
// the old package or the new one at the package path, byte for byte, and
// nothing beside it.

#include "CommitFixture.h"

#include "support/ChildProcess.h"
#include "support/SyscallTrace.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace opc::test::commit {
namespace {

// The raw wait status, which tells a kill from an exit.
int statusOf(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
}

bool killed(int status) { return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }
bool succeeded(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }

enum Outcome { Old, New, Broken };

// Each call that changes the disk, from open to the end of close(false),
// kills the committer once. Syncs are off: a kill cannot see them.
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
            SyscallTrace::killAt(step);
            package.open(OpenMode::ReadWrite);
            changeSample(package);
            package.close(false);
            return 0;
        }));
        if (succeeded(status)) break;  // the commit outran every kill
        ASSERT_TRUE(killed(status)) << "status " << status;
        emptyPath += !fs::exists(work / "pkg");
        ++swaps[LocalFileSystemOps().recover(fromUtf8((work / "pkg").native())).swap];
        const TreeSnapshot after = snapshotTree(work);
        const Outcome outcome = after == oldTree ? Old : after == newTree ? New : Broken;
        ASSERT_NE(outcome, Broken) << ::testing::PrintToString(after);
        ASSERT_FALSE(last == New && outcome == Old) << "a later kill brought the old package back";
        ++outcomes[outcome];
        last = outcome;
    }
    EXPECT_EQ(snapshotTree(work), newTree);
    RecordProperty("steps", static_cast<int>(step));
    EXPECT_GE(step, 40u) << "too few steps: the kills did not reach into the staging and the commit";
    EXPECT_GT(outcomes[Old], 0);
    EXPECT_GT(outcomes[New], 0);
    EXPECT_GT(emptyPath, 0) << "no kill landed between the two renames";
    EXPECT_GT(swaps[RecoveryReport::Swap::RestoredOld], 0);
    EXPECT_GT(swaps[RecoveryReport::Swap::CompletedNew], 0);
}

}  // namespace
}  // namespace opc::test::commit
