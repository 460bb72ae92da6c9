#pragma once

// A package folder with parts in nested folders and the changes the commit
// tests make to it. Its parent folder holds nothing but the package, so a
// snapshot of the parent also catches hidden folders left beside it.

#include "support/FaultyFileSystemOps.h"
#include "support/OpcAssertions.h"
#include "support/StreamHelpers.h"
#include "support/TempDir.h"
#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <set>

namespace opc::test::commit {

namespace fs = std::filesystem;
using opc::fspackage::FileSystemPartInfo;
using opc::fspackage::FileSystemPhysicalPackage;
using opc::interfaces::OpenMode;

inline std::string baseName(const std::u16string& path) { return fs::path(toUtf8(path)).filename(); }

// The entries below top-level entry `from`, moved below `to`.
inline TreeSnapshot subtree(const TreeSnapshot& tree, const std::string& from, const std::string& to = "pkg") {
    TreeSnapshot result;
    for (const auto& [path, bytes] : tree) {
        if (path.rfind(from + "/", 0) == 0) result[to + path.substr(from.size())] = bytes;
    }
    return result;
}

inline std::vector<std::string> topLevelNames(const TreeSnapshot& tree) {
    std::set<std::string> names;
    for (const auto& entry : tree) names.insert(entry.first.substr(0, entry.first.find('/')));
    return {names.begin(), names.end()};
}

// Changed, deleted and unchanged parts in nested folders, and a [trash] part.
inline Files sampleFiles() {
    return {{"[Content_Types].xml", "<Types/>"},
            {"_rels/.rels", "<Relationships/>"},
            {"word/document.xml", "old document"},
            {"word/styles.xml", "<styles/>"},
            {"word/media/image1.png", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR\xff", 18)},
            {"docProps/core.xml", "<core/>"},
            {"custom/item.xml", "<item/>"},
            {"a/b/c/deep.xml", "deep"},
            {"[trash]/discarded.xml", "discarded"}};
}

// The sample package, with an empty folder.
inline void writeSample(const fs::path& package) {
    for (const auto& [path, bytes] : sampleFiles()) writeFile(package / path, bytes);
    fs::create_directories(package / "emptyFolder");
}

// The sample after changeSample() was committed: no deleted part, no
// [trash], no empty folder.
inline TreeSnapshot sampleAfterCommit() {
    Files files = sampleFiles();
    for (const char* gone : {"docProps/core.xml", "custom/item.xml", "[trash]/discarded.xml"}) files.erase(gone);
    files["word/document.xml"] = "new document";
    files["new/added.xml"] = "added";
    files["new/deeper/unwritten.xml"] = "";
    return treeOf(files);
}

// How many of this process's file descriptors lie on a file below folder.
// Not counted: the service's locks on a staging folder or swap journal that
// an injected failure kept it from releasing.
inline int openFilesBelow(const fs::path& folder) {
    const std::string prefix = fs::canonical(folder).native() + "/";
    int count = 0;
    for (const auto& fd : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;  // a descriptor may close while listed
        const fs::path target = fs::read_symlink(fd, gone);
        const bool lock = target.filename().native().rfind(".opc-", 0) == 0 &&
                          (fs::is_directory(target, gone) || target.extension() == ".journal");
        count += target.native().rfind(prefix, 0) == 0 && !lock;
    }
    return count;
}

// Rewrites /word/document.xml, deletes two parts, creates /new/added.xml
// (written) and /new/deeper/unwritten.xml (never written), and leaves an
// input stream of /word/styles.xml open.
inline void changeSample(FileSystemPhysicalPackage& package) {
    char head[3];
    partNamed(package, u"/word/styles.xml")->getInputStream()->read(head, 3);
    writeAll(partNamed(package, u"/word/document.xml")->getOutputStream(), "new document");
    package.deletePart(u"/docProps/core.xml");
    package.deletePart(u"/custom/item.xml");
    writeAll(package.createPart(u"/new/added.xml", u"", FileSystemPartInfo())->getOutputStream(), "added");
    package.createPart(u"/new/deeper/unwritten.xml", u"", FileSystemPartInfo());
}

// The sample package at dir/pkg, seen through ops.
struct Sample {
    TempDir dir;
    TreeSnapshot original = (writeSample(dir.path() / "pkg"), snapshotTree(dir.path()));
    FaultyFileSystemOps ops;
    std::unique_ptr<FileSystemPhysicalPackage> package =
        std::make_unique<FileSystemPhysicalPackage>(dir.u16("pkg"), ops);
    std::u16string temp;

    // Opens, makes the sample changes when asked, and restarts the call record.
    void open(OpenMode mode = OpenMode::ReadWrite, bool changed = true) {
        package->open(mode);
        temp = package->getTempPackageRoot();
        if (changed) changeSample(*package);
        ops.clearCalls();
    }
    TreeSnapshot after() const { return snapshotTree(dir.path()); }
    opc::interfaces::IPhysicalPart* part(const std::u16string& name) { return partNamed(*package, name); }
    void expectClosedAndReleased() {
        EXPECT_FALSE(package->isOpen());
        EXPECT_EQ(package->getTempPackageRoot(), u"");
        EXPECT_EQ(openFilesBelow(dir.path()), 0);
    }
};

}  // namespace opc::test::commit
