#include "PackageTestHelpers.h"

#include "support/Strings.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace opc::test::fspackage {

void writeFiles(const std::filesystem::path& folder, const Files& files) {
    std::filesystem::create_directories(folder);
    for (const auto& [relative, bytes] : files) writeFile(folder / relative, bytes);
}

TreeSnapshot writePackage(const std::filesystem::path& folder, const Files& files) {
    Files all = files;
    all.emplace("[Content_Types].xml", "<Types/>");
    writeFiles(folder / "pkg", all);
    return snapshotTree(folder);
}

std::vector<std::u16string> partNames(opc::interfaces::IPhysicalPackage& package) {
    std::vector<std::u16string> names;
    for (opc::interfaces::IPhysicalPart* part : package.getParts()) names.push_back(part->getName());
    return names;
}

opc::interfaces::IPhysicalPart* findPart(opc::interfaces::IPhysicalPackage& package, const std::u16string& name) {
    for (opc::interfaces::IPhysicalPart* part : package.getParts()) {
        if (part->getName() == name) return part;
    }
    throw std::runtime_error("no part named " + toUtf8(name));
}

opc::fspackage::FileSystemPart& fsPart(opc::interfaces::IPhysicalPart* part) {
    auto* own = dynamic_cast<opc::fspackage::FileSystemPart*>(part);
    if (own == nullptr) throw std::runtime_error("not a FileSystemPart");
    return *own;
}

void forbidWrites(FaultyFileSystemOps& ops) {
    ops.failCalls(Hook::CreateFolders, 1, std::numeric_limits<std::size_t>::max());
    ops.failCalls(Hook::CreateFoldersReporting, 1, std::numeric_limits<std::size_t>::max());
    ops.failCalls(Hook::CreateOutputStream, 1, std::numeric_limits<std::size_t>::max());
}

std::vector<Hook> hooksCalled(const FaultyFileSystemOps& ops) {
    std::vector<Hook> hooks;
    for (const Call& call : ops.calls()) hooks.push_back(call.hook);
    return hooks;
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

std::string baseName(const std::u16string& path) { return std::filesystem::path(toUtf8(path)).filename().native(); }

}  // namespace opc::test::fspackage
