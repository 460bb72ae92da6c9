#include "CommitFixture.h"

#include "support/StreamHelpers.h"
#include "support/TempDir.h"

#include <opcfspackage/FileSystemPartInfo.h>

#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

namespace opc::test::commit {

TreeSnapshot treeOf(const std::string& top, const Files& files) {
    TreeSnapshot tree{{top + "/", ""}};
    for (const auto& [path, bytes] : files) {
        for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
            tree[top + "/" + path.substr(0, slash + 1)] = "";
        }
        tree[top + "/" + path] = bytes;
    }
    return tree;
}

TreeSnapshot subtree(const TreeSnapshot& snapshot, const std::string& top, const std::string& as) {
    TreeSnapshot result;
    const std::string prefix = top + "/";
    for (auto it = snapshot.lower_bound(prefix); it != snapshot.end() && it->first.compare(0, prefix.size(), prefix) == 0;
         ++it) {
        result[as + "/" + it->first.substr(prefix.size())] = it->second;
    }
    return result;
}

std::vector<std::string> topLevelNames(const TreeSnapshot& snapshot) {
    std::set<std::string> names;
    for (const auto& entry : snapshot) names.insert(entry.first.substr(0, entry.first.find('/')));
    return {names.begin(), names.end()};
}

void writeFiles(const std::filesystem::path& folder, const Files& files) {
    std::filesystem::create_directories(folder);
    for (const auto& [path, bytes] : files) writeFile(folder / path, bytes);
}

Files sampleFiles() {
    return {
        {"[Content_Types].xml", "<Types/>"},
        {"_rels/.rels", "<Relationships/>"},
        {"word/document.xml", "old document"},
        {"word/styles.xml", "<styles/>"},
        {"word/media/image1.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\xff", 18)},
        {"docProps/core.xml", "<core/>"},
        {"custom/item.xml", "<item/>"},
        {"a/b/c/deep.xml", "deep"},
        {"[trash]/discarded.xml", "discarded"},
    };
}

TreeSnapshot writeSamplePackage(const std::filesystem::path& parent) {
    writeFiles(parent / "pkg", sampleFiles());
    std::filesystem::create_directories(parent / "pkg" / "emptyFolder");
    TreeSnapshot expected = treeOf("pkg", sampleFiles());
    expected["pkg/emptyFolder/"] = "";
    EXPECT_EQ(snapshotTree(parent), expected);
    return expected;
}

void applySampleChanges(opc::fspackage::FileSystemPhysicalPackage& package) {
    char head[3];
    ASSERT_EQ(findPart(package, u"/word/styles.xml")->getInputStream()->read(head, 3), 3);
    ASSERT_EQ(writeAll(findPart(package, u"/word/document.xml")->getOutputStream(), "new document"), 12);
    package.deletePart(u"/docProps/core.xml");
    package.deletePart(u"/custom/item.xml");
    const opc::fspackage::FileSystemPartInfo info;
    ASSERT_EQ(writeAll(package.createPart(u"/new/added.xml", u"text/xml", info)->getOutputStream(), "added"), 5);
    package.createPart(u"/new/deeper/unwritten.xml", u"text/xml", info);
}

TreeSnapshot sampleAfterCommit() {
    return treeOf("pkg", {
                             {"[Content_Types].xml", "<Types/>"},
                             {"_rels/.rels", "<Relationships/>"},
                             {"word/document.xml", "new document"},
                             {"word/styles.xml", "<styles/>"},
                             {"word/media/image1.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\xff", 18)},
                             {"a/b/c/deep.xml", "deep"},
                             {"new/added.xml", "added"},
                             {"new/deeper/unwritten.xml", ""},
                         });
}

opc::interfaces::IPhysicalPart* findPart(opc::interfaces::IPhysicalPackage& package, const std::u16string& name) {
    for (opc::interfaces::IPhysicalPart* part : package.getParts()) {
        if (part->getName() == name) return part;
    }
    throw std::runtime_error("no part of that name");
}

int openFilesBelow(const std::filesystem::path& folder) {
    const std::string prefix = std::filesystem::canonical(folder).native() + "/";
    int count = 0;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
        const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), ignored);
        if (!ignored && target.native().compare(0, prefix.size(), prefix) == 0) ++count;
    }
    return count;
}

}  // namespace opc::test::commit
