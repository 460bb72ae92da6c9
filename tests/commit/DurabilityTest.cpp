// What a commit makes durable and in which order, what it keeps of the old
// package, a write that fails at its last bytes, and recovery's decisions.

#include "CommitFixture.h"

#include "support/ChildProcess.h"
#include "support/SyscallTrace.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>

namespace opc::test::commit {
namespace {

// An entry's own permission bits, owner and group (a link's, not its target's).
using Attributes = std::tuple<mode_t, uid_t, gid_t>;
Attributes attributesOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return {info.st_mode & 07777, info.st_uid, info.st_gid};
}

bool isJournal(const std::string& path) { return path.size() > 8 && path.substr(path.size() - 8) == ".journal"; }

// The calls that order a commit on disk, with the journal's name replaced by
// "J", the folder moved aside by "A", the staging folder by "T".
std::vector<std::string> orderOfCommit(bool durable) {
    Sample s;
    s.ops.setDurable(durable);
    s.open();
    SyscallTrace::startRecording();
    s.package->close(false);
    const std::vector<SyscallEvent> events = SyscallTrace::stopRecording();
    EXPECT_EQ(s.after(), sampleAfterCommit());

    const std::string parent = fs::canonical(s.dir.path()).native(), package = parent + "/pkg";
    const std::string temp = toUtf8(s.temp);
    std::string aside;
    std::vector<std::string> order;
    const auto name = [&](const std::string& path) {
        if (path == parent) return std::string("parent");
        if (path == package) return std::string("P");
        if (path == temp) return std::string("T");
        if (isJournal(path)) return std::string("J");
        return !aside.empty() && path == aside ? std::string("A") : path;
    };
    for (const SyscallEvent& event : events) {
        if (event.call == "renameat2" && event.path == package) aside = event.second;
        const bool journalCall = isJournal(event.path) && event.call != "flock";
        if (event.call == "fsync" || event.call == "syncfs" || event.call == "renameat2" || journalCall) {
            order.push_back(event.call + " " + name(event.path) +
                            (event.second.empty() ? "" : " " + name(event.second)));
        }
        // Nothing is written into the staging folder once it is synced.
        if (!order.empty() && order.back() != "syncfs T" && event.path.rfind(temp + "/", 0) == 0) {
            EXPECT_EQ(std::count(order.begin(), order.end(), "syncfs T"), 0) << event.call << " " << event.path;
        }
    }
    return order;
}

TEST(Durability, StagedTreeSyncedBeforePublishingRenameAndParentAfter) {
    EXPECT_EQ(orderOfCommit(true), (std::vector<std::string>{"fsync J", "fsync parent", "renameat2 P A", "syncfs T",
                                                             "renameat2 T P", "fsync parent", "unlinkat J"}));
    EXPECT_EQ(orderOfCommit(false), (std::vector<std::string>{"renameat2 P A", "renameat2 T P", "unlinkat J"}));
}

// The last bytes of a part, still buffered, meet the file-size limit: the
// commit fails with the write's code, flushed first or not.
TEST(Durability, WriteFailingAtLastBytesFailsCommitAndKeepsOldPackage) {
    constexpr rlim_t kLimit = 64 * 1024;
    for (const bool flushFirst : {false, true}) {
        SCOPED_TRACE(flushFirst ? "flushed before close" : "not flushed");
        Sample s;
        TempDir report;  // beside the package's folder, which must stay as it was
        waitChild(forkChild([&] {
            ::signal(SIGXFSZ, SIG_IGN);
            const rlimit limit{kLimit, kLimit};
            ::setrlimit(RLIMIT_FSIZE, &limit);
            std::string outcome;
            s.open(OpenMode::ReadWrite, false);
            auto* stream = s.part(u"/word/document.xml")->getOutputStream();
            writeAll(stream, std::string(kLimit - 100, 'a'));
            for (int i = 0; i < 10; ++i) writeAll(stream, std::string(20, 'b'));
            if (flushFirst) {
                stream->flush();
                outcome += stream->isFailed() ? "failed; " : "not failed; ";
            }
            try {
                s.package->close(false);
            } catch (const opc::Exception& e) {
                outcome += std::string(e.what()) + " [" + std::to_string(e.code().value()) + "]";
            }
            writeFile(report.path() / "outcome", outcome);
            return 0;
        }));
        EXPECT_EQ(readFile(report.path() / "outcome"),
                  std::string(flushFirst ? "failed; " : "") +
                      "Could not commit changes: Could not rename the temporary package to final location: " +
                      "File too large [" + std::to_string(EFBIG) + "]");
        EXPECT_EQ(s.after(), s.original);
    }
}

// A private package stays private, and (as root) keeps its owner; what is
// new gets what a new entry of the folder would get.
TEST(Durability, CommitKeepsModesAndOwnersOfThePackage) {
    const mode_t oldMask = ::umask(022);
    const bool root = ::geteuid() == 0;
    const uid_t owner = root ? 4321 : ::geteuid();
    const gid_t group = root ? 4322 : ::getegid();
    Sample s;
    const fs::path pkg = s.dir.path() / "pkg";
    for (const auto& entry : fs::recursive_directory_iterator(pkg)) {
        ::chmod(entry.path().c_str(), entry.is_directory() ? 0700 : 0600);
        if (root) ::lchown(entry.path().c_str(), owner, group);
    }
    ::chmod(pkg.c_str(), 0710);
    ::chmod((pkg / "word/document.xml").c_str(), 0640);
    if (root) ::lchown(pkg.c_str(), owner, group);
    s.open();
    s.package->close(false);
    ::umask(oldMask);
    const uid_t me = ::geteuid();
    const gid_t myGroup = ::getegid();
    for (const auto& [path, expected] :
         std::vector<std::pair<std::string, Attributes>>{{"", {0710, owner, group}},
                                                         {"word", {0700, owner, group}},
                                                         {"word/document.xml", {0640, owner, group}},
                                                         {"word/styles.xml", {0600, owner, group}},
                                                         {"a/b/c/deep.xml", {0600, owner, group}},
                                                         {"new", {0755, me, myGroup}},
                                                         {"new/added.xml", {0644, me, myGroup}},
                                                         {"new/deeper/unwritten.xml", {0644, me, myGroup}}}) {
        EXPECT_EQ(attributesOf(pkg / path), expected) << path;
    }

    // A package new at its path gets what a new folder gets, not the
    // staging folder's private mode.
    ::umask(027);
    FileSystemPhysicalPackage created(s.dir.u16("created"));
    created.open(OpenMode::Create);
    created.close(false);
    ::umask(oldMask);
    EXPECT_EQ(attributesOf(s.dir.path() / "created"), (Attributes{0750, me, myGroup}));
}

// While another commit swaps the package, recovery sees its journal and
// its staging folder locked and leaves both alone.
TEST(Recovery, LeavesLiveCommitAlone) {
    Sample s;
    s.open();
    std::optional<RecoveryReport> seen;
    TreeSnapshot during;
    s.ops.setBeforeCall([&](const Call& call) {
        if (call.hook != Hook::Rename || call.path != s.temp) return;
        seen = LocalFileSystemOps().recover(s.dir.u16("pkg"));
        during = s.after();
    });
    s.package->close(false);
    ASSERT_TRUE(seen.has_value());
    EXPECT_EQ(seen->swap, RecoveryReport::Swap::InProgress);
    EXPECT_EQ(seen->removedFolders, 0u);
    EXPECT_FALSE(seen->packageExists);
    EXPECT_EQ(topLevelNames(during).size(), 3u);  // journal, old package aside, staging folder
    EXPECT_EQ(subtree(during, baseName(s.temp)).size(), sampleAfterCommit().size());
    EXPECT_EQ(s.after(), sampleAfterCommit());
}

// A journal left by a dead process decides what comes back; leftovers that
// no journal names go, what belongs to others stays.
TEST(Recovery, EndsDeadSwapsAndRemovesLeftovers) {
    using Swap = RecoveryReport::Swap;
    const Files oldFiles{{"[Content_Types].xml", "old"}}, newFiles{{"[Content_Types].xml", "new"}};
    const Files partial{{"x", "half"}};
    struct Case {
        const char* state;
        std::optional<Files> atPath, aside;
        Swap swap;
        Files after;
        std::size_t journalSize = std::string::npos;  // less: cut short by the death
    };
    for (const Case& c : std::vector<Case>{{"S", std::nullopt, oldFiles, Swap::RestoredOld, oldFiles},
                                           {"S", newFiles, oldFiles, Swap::CompletedNew, newFiles},
                                           {"S", newFiles, std::nullopt, Swap::None, newFiles},
                                           {"U", partial, oldFiles, Swap::RestoredOld, oldFiles},
                                           {"?", oldFiles, std::nullopt, Swap::None, oldFiles},
                                           {"S", oldFiles, std::nullopt, Swap::None, oldFiles, 12},
                                           {"S", oldFiles, std::nullopt, Swap::None, oldFiles, 23}}) {
        SCOPED_TRACE(std::string(c.state) + (c.atPath ? " package" : " no package") + (c.aside ? ", aside" : "") +
                     (c.journalSize != std::string::npos ? ", cut short" : ""));
        TempDir dir;
        const auto put = [&](const std::string& folder, const Files& files) {
            for (const auto& [path, bytes] : files) writeFile(dir.path() / folder / path, bytes);
        };
        // What belongs to others, to stay: another package's swap, and a
        // third's cut short before its journal said whose it is; a file that
        // is no journal, and a hidden folder that is no commit's.
        writeFile(dir.path() / ".opc-2.journal", std::string("OPCSWAP1Sother") + '\0' + ".opc-otheraside" + '\0');
        put(".opc-otheraside", oldFiles);
        writeFile(dir.path() / ".opc-0123456789abcdef.journal", "OPCSW");
        put(".opc-0123456789abcdef", oldFiles);
        put(".opc-asid", partial);  // what the journal cut at 23 bytes would name
        writeFile(dir.path() / ".opc-pkg.lock", "");
        TreeSnapshot expected = snapshotTree(dir.path());
        // Left by dead processes: a staging folder, an empty one.
        put(".opc-5a61e1dc0ffee000", partial);
        fs::create_directory(dir.path() / ".opc-e000000000000000");
        if (c.atPath) put("pkg", *c.atPath);
        if (c.aside) put(".opc-aside", *c.aside);
        writeFile(dir.path() / ".opc-1.journal",
                  (std::string("OPCSWAP1") + c.state + "pkg" + '\0' + ".opc-aside" + '\0').substr(0, c.journalSize));

        const RecoveryReport report = LocalFileSystemOps().recover(dir.u16("pkg"));
        EXPECT_EQ(report.swap, c.swap);
        EXPECT_EQ(report.removedFolders, 2u);
        EXPECT_TRUE(report.packageExists);
        expected.merge(treeOf(c.after));
        EXPECT_EQ(snapshotTree(dir.path()), expected);
    }
    TempDir empty;
    EXPECT_EQ(LocalFileSystemOps().recover(empty.u16("missing/pkg")).packageExists, false);
}

}  // namespace
}  // namespace opc::test::commit
