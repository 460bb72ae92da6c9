#include "support/OpcAssertions.h"
#include "support/StreamHelpers.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"
#include "support/ZipFixture.h"

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

namespace opc::test {
namespace {

using opc::fspackage::FileSystemPartInfo;
using opc::fspackage::FileSystemPhysicalPackage;

TEST(RoundTrip, CreatedPackageReopensWithItsParts) {
    TempDir dir;
    {
        FileSystemPhysicalPackage package(dir.u16("pkg"));
        package.open(opc::interfaces::Create);
        writeAll(package.getContentTypeOutputStream(), "<Types/>");
        writeAll(package.createPart(u"/word/document.xml", u"text/xml", FileSystemPartInfo())->getOutputStream(), "hi");
        package.close(false);
    }
    EXPECT_EQ(snapshotTree(dir.path()), (TreeSnapshot{{"pkg/", ""},
                                                       {"pkg/[Content_Types].xml", "<Types/>"},
                                                       {"pkg/word/", ""},
                                                       {"pkg/word/document.xml", "hi"}}));
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(opc::interfaces::Read);
    const auto parts = package.getParts();
    ASSERT_EQ(parts.size(), 1u);
    EXPECT_EQ(readAll(parts[0]->getInputStream()), "hi");
}

TEST(RoundTrip, CorpusPackageListsItsEntries) {
    TempDir dir;
    const auto archive = corpusPackages().front();
    unzipToFolder(archive, dir.path() / "pkg");
    FileSystemPhysicalPackage package(dir.u16("pkg"));
    package.open(opc::interfaces::Read);
    EXPECT_EQ(package.getParts().size() + 1, readZipEntries(archive).size());
}

}  // namespace
}  // namespace opc::test
