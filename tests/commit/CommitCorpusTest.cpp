// Real packages, unpacked to folders: one part rewritten and one deleted,
// then committed; every other entry must come through byte for byte.

#include "CommitFixture.h"

#include "support/StreamHelpers.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

namespace opc::test::commit {
namespace {

using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::OpenMode;

TEST(CommitCorpus, RewriteAndDeleteKeepEveryOtherEntry) {
    const auto archives = corpusPackages();
    ASSERT_GE(archives.size(), 10u);
    for (const auto& archive : archives) {
        SCOPED_TRACE(archive.filename().native());
        TempDir dir;
        unzipToFolder(archive, dir.path() / "pkg");
        Files expected;
        for (auto& [name, bytes] : readZipEntries(archive)) expected[name] = std::move(bytes);
        ASSERT_EQ(snapshotTree(dir.path()), treeOf("pkg", expected));

        FileSystemPhysicalPackage package(dir.u16("pkg"));
        package.open(OpenMode::ReadWrite);
        const auto parts = package.getParts();
        ASSERT_GE(parts.size(), 2u);
        // The first part listed is rewritten, the last one deleted.
        const std::u16string rewritten = parts.front()->getName();
        const std::u16string deleted = parts.back()->getName();
        const std::string replacement = "rewritten " + toUtf8(rewritten);
        ASSERT_EQ(writeAll(parts.front()->getOutputStream(), replacement),
                  static_cast<std::streamsize>(replacement.size()));
        package.deletePart(deleted);
        package.close(false);

        ASSERT_EQ(expected.count(toUtf8(rewritten.substr(1))), 1u);
        ASSERT_EQ(expected.erase(toUtf8(deleted.substr(1))), 1u);
        expected[toUtf8(rewritten.substr(1))] = replacement;
        EXPECT_EQ(snapshotTree(dir.path()), treeOf("pkg", expected));

        // The committed folder opens as a package again, one part fewer.
        FileSystemPhysicalPackage reopened(dir.u16("pkg"));
        reopened.open(OpenMode::Read);
        EXPECT_EQ(reopened.getParts().size() + 1, expected.size());
        EXPECT_EQ(readAll(findPart(reopened, rewritten)->getInputStream()), replacement);
    }
}

}  // namespace
}  // namespace opc::test::commit
