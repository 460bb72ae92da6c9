#include "PackageTestHelpers.h"

#include "support/StreamHelpers.h"
#include "support/Strings.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <string>

namespace opc::test::fspackage {
namespace {

using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::OpenMode;

// Each package of the corpus, unzipped into a folder, reads back as exactly
// its ZIP entries: the same names with "/" in front, the same bytes.
class CorpusRead : public ::testing::TestWithParam<std::filesystem::path> {};

TEST(CorpusReadSet, CorpusIsThere) { EXPECT_GE(corpusPackages().size(), 10u); }

TEST_P(CorpusRead, PackageReadsAsItsZipEntries) {
    const std::filesystem::path& archive = GetParam();
    TempDir dir;
    unzipToFolder(archive, dir.path() / "pkg");
    const TreeSnapshot unzipped = snapshotTree(dir.path());

    std::map<std::u16string, std::string> expected;
    for (const auto& [name, bytes] : readZipEntries(archive)) expected.emplace(u"/" + fromUtf8(name), bytes);
    ASSERT_EQ(expected.count(u"/[Content_Types].xml"), 1u);

    FileSystemPhysicalPackage package(dir.u16("pkg"));
    ASSERT_NO_THROW(package.open(OpenMode::Read));
    std::map<std::u16string, std::string> read;
    for (opc::interfaces::IPhysicalPart* part : package.getParts()) {
        const bool fresh = read.emplace(part->getName(), readAll(part->getInputStream(), 1000)).second;
        EXPECT_TRUE(fresh) << "listed twice: " << toUtf8(part->getName());
        EXPECT_EQ(part->getContentType(), u"");
    }
    EXPECT_EQ(read.count(u"/[Content_Types].xml"), 0u);
    read.emplace(u"/[Content_Types].xml", readAll(package.getContentTypeInputStream()));

    ASSERT_EQ(read.size(), expected.size());
    for (const auto& [name, bytes] : expected) {
        const auto found = read.find(name);
        if (found == read.end()) {
            ADD_FAILURE() << "missing part " << toUtf8(name);
        } else {
            EXPECT_TRUE(found->second == bytes) << toUtf8(name) << ": " << found->second.size() << " bytes read, "
                                                << bytes.size() << " in the archive";
        }
    }
    package.close(false);
    EXPECT_EQ(snapshotTree(dir.path()), unzipped);
}

std::string testName(const ::testing::TestParamInfo<std::filesystem::path>& info) {
    std::string name = info.param.filename().native();
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Corpus, CorpusRead, ::testing::ValuesIn(corpusPackages()), testName);

}  // namespace
}  // namespace opc::test::fspackage
