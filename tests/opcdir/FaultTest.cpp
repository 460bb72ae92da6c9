#include "OpcdirHarness.h"
#include "support/FaultyFileSystemOps.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace opc::test {
namespace {

const std::string kTypes = "<Types><Default Extension=\"xml\" ContentType=\"application/xml\"/></Types>";

// One line, "opcdir: <file>: <cause>", naming one of the command's files.
bool isOneErrorLine(const std::string& err, const std::vector<std::string>& arguments) {
    const bool namesAFile = std::any_of(arguments.begin(), arguments.end(), [&](const std::string& argument) {
        return err.rfind("opcdir: " + argument + ": ", 0) == 0;
    });
    return namesAFile && std::count(err.begin(), err.end(), '\n') == 1 && err.back() == '\n';
}

// Runs arguments once with no failure to count the service calls, then once
// per call with that call failing. A run that fails must leave the folder as
// it was; a run that succeeds (the failure fell on a step whose failure is
// harmless) must give the same result as the clean run.
void expectEveryFailureLeavesOldOrNew(const TempDir& dir, const std::vector<std::string>& arguments) {
    const TreeSnapshot before = snapshotTree(dir.path());
    FaultyFileSystemOps counting;
    const RunResult clean = runOpcdirWith(counting, arguments);
    ASSERT_EQ(clean.status, 0) << clean.err;
    const TreeSnapshot after = snapshotTree(dir.path());
    ASSERT_NE(after, before);
    const std::size_t calls = counting.calls().size();
    ASSERT_GT(calls, 5u);

    std::size_t failed = 0;
    for (std::size_t call = 1; call <= calls; ++call) {
        SCOPED_TRACE("failing call " + std::to_string(call) + " of " + std::to_string(calls));
        // Every run starts from the same folder, rebuilt from the snapshot.
        std::filesystem::remove_all(dir.path());
        std::filesystem::create_directories(dir.path());
        for (const auto& [name, bytes] : before) {
            if (name.back() == '/')
                std::filesystem::create_directories(dir.path() / name);
            else
                writeFile(dir.path() / name, bytes);
        }
        FaultyFileSystemOps faulty;
        faulty.failGlobalCall(call);
        const RunResult result = runOpcdirWith(faulty, arguments);
        if (result.status == 0) {
            EXPECT_EQ(snapshotTree(dir.path()), after);
        } else {
            ++failed;
            EXPECT_EQ(result.status, 1);
            EXPECT_TRUE(isOneErrorLine(result.err, arguments)) << result.err;
            EXPECT_EQ(snapshotTree(dir.path()), before);
        }
    }
    EXPECT_GT(failed, calls / 2);
}

class CommandUnderFaults : public ::testing::Test {
protected:
    void SetUp() override {
        writeFile(dir.path() / "pkg" / "[Content_Types].xml", kTypes);
        writeFile(dir.path() / "pkg" / "word" / "document.xml", "<old/>");
        writeFile(dir.path() / "pkg" / "word" / "styles.xml", "<styles/>");
    }
    std::string at(const std::string& relative) const { return (dir.path() / relative).string(); }

    TempDir dir;
};

TEST_F(CommandUnderFaults, UnpackForceKeepsTheOldPackageOrGivesTheNew) {
    writeBytes(dir.path() / "new.zip",
               rawZip({{"[Content_Types].xml", kTypes}, {"word/document.xml", "<new/>"}, {"media/a.bin", "abc"}}));
    expectEveryFailureLeavesOldOrNew(dir, {"unpack", "--force", at("new.zip"), at("pkg")});
}

TEST_F(CommandUnderFaults, PutKeepsTheOldPackageOrGivesTheNew) {
    writeFile(dir.path() / "in.xml", "<replaced/>");
    expectEveryFailureLeavesOldOrNew(dir, {"put", at("pkg"), "word/document.xml", at("in.xml")});
}

TEST_F(CommandUnderFaults, PutOfANewPartKeepsTheOldPackageOrGivesTheNew) {
    writeFile(dir.path() / "in.xml", "<added/>");
    expectEveryFailureLeavesOldOrNew(dir, {"put", at("pkg"), "customXml/item1.xml", at("in.xml")});
}

TEST_F(CommandUnderFaults, RmKeepsTheOldPackageOrGivesTheNew) {
    expectEveryFailureLeavesOldOrNew(dir, {"rm", at("pkg"), "word/styles.xml"});
}

TEST_F(CommandUnderFaults, PackKeepsTheOldFileOrGivesTheNew) {
    writeFile(dir.path() / "out.docx", "the previous archive");
    expectEveryFailureLeavesOldOrNew(dir, {"pack", at("pkg"), at("out.docx")});
}

TEST_F(CommandUnderFaults, CommitFailureIsToldInOneLine) {
    writeBytes(dir.path() / "new.zip", rawZip({{"[Content_Types].xml", kTypes}, {"a.xml", "<a/>"}}));
    const TreeSnapshot before = snapshotTree(dir.path());
    FaultyFileSystemOps faulty;
    faulty.failCall(Hook::Rename, 1);
    const RunResult result = runOpcdirWith(faulty, {"unpack", "--force", at("new.zip"), at("pkg")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "opcdir: " + at("pkg") +
                              ": Could not commit changes: Could not move the original package to temporary location: "
                              "Input/output error\n");
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

TEST_F(CommandUnderFaults, UnreadablePartStopsPackWithoutATrace) {
    const TreeSnapshot before = snapshotTree(dir.path());
    FaultyFileSystemOps faulty;
    faulty.failCall(Hook::CreateInputStream, 2);
    const RunResult result = runOpcdirWith(faulty, {"pack", at("pkg"), at("out.docx")});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "opcdir: " + at("out.docx") +
                  ": cannot read part '/word/document.xml': Failed to create or open file system input stream\n");
    EXPECT_EQ(snapshotTree(dir.path()), before);
}

}  // namespace
}  // namespace opc::test
