#include <opccore/Exception.h>
#include <opcfspackage/FileSystemPartInfo.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <boost/system/error_code.hpp>

#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>

namespace opc::fspackage {
namespace {

using opc::interfaces::OpenMode;

// Runs its action once when it goes out of scope, normally or while an
// exception passes, and swallows whatever the action throws.
class ScopeGuard {
public:
    explicit ScopeGuard(std::function<void()> onExit) : action(std::move(onExit)) {}
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;

    ~ScopeGuard() {
        if (!action) return;
        try {
            std::function<void()> run = std::move(action);
            action = nullptr;
            run();
        } catch (...) {
        }
    }

private:
    std::function<void()> action;
};

// The swap's renames and removals pass through here. Despite the name, one
// attempt is made: a failure is reported to the caller at once, who undoes
// what came before, rather than hidden behind waits.
// Takes the callable by value, as the swap's contract has it.
void retryOnPermissionDenied(std::function<void()> operation) {  // NOLINT(performance-unnecessary-value-param)
    operation();
}

void renameWithRetryOnPermissionDenied(opc::FileSystemOps& fileSystemOps, std::u16string& from, std::u16string& to) {
    retryOnPermissionDenied([&] { fileSystemOps.rename(from, to); });
}

void removeAllWithRetryOnPermissionDenied(opc::FileSystemOps& fileSystemOps, std::u16string& path) {
    retryOnPermissionDenied([&] { fileSystemOps.removeAll(path); });
}

[[noreturn]] void fail(const std::string& message, const boost::system::error_code& code = {}) {
    throw opc::Exception(message, code);
}

std::int32_t valueOf(const OpenMode& mode) { return static_cast<std::int32_t>(mode); }

bool readsFolder(const OpenMode& mode) { return (valueOf(mode) & ~2) == 0; }  // Read or ReadWrite

bool stagesChanges(const OpenMode& mode) {
    return valueOf(mode) == OpenMode::Create || valueOf(mode) == OpenMode::ReadWrite;
}

const std::u16string kTrashPrefix = u"/[trash]";

// As path.find(root) == 0, compared as bytes, as fast as the listing that
// gave path.
bool startsWith(const std::u16string& path, const std::u16string& root) {
    return path.size() >= root.size() && std::memcmp(path.data(), root.data(), root.size() * sizeof(char16_t)) == 0;
}

}  // namespace

FileSystemPhysicalPackage::FileSystemPhysicalPackage(const std::u16string& packagePath, opc::FileSystemOps& service)
    : fileSystemOps(service),
      contentTypesPartName(u"/[Content_Types].xml"),
      openMode(OpenMode::Create),
      opened(false),
      modified(false),
      staging(false) {
    packageRoot = getFSImpl().normalizePath(packagePath);
}

// Binds the reference to the member that the delegated-to constructor builds
// first; nothing uses it before then.
FileSystemPhysicalPackage::FileSystemPhysicalPackage(const std::u16string& packagePath)
    : FileSystemPhysicalPackage(packagePath, localFileSystemOps) {}

FileSystemPhysicalPackage::~FileSystemPhysicalPackage() {
    try {
        FileSystemPhysicalPackage::close(true);
        if (!tempPackageRoot.empty() && fileSystemOps.exists(tempPackageRoot)) {
            boost::system::error_code errorCode;
            fileSystemOps.removeAll(tempPackageRoot, errorCode);
        }
    } catch (...) {
        // A destructor reports nothing; what a failed removal leaves is a
        // hidden folder beside the package, never a damaged package.
    }
    // Parts still registered here came from a failed open or from registry
    // calls on a package never opened.
    deleteParts(changedParts);
    deleteParts(parts);
}

// ---- Opening ---------------------------------------------------------------------

void FileSystemPhysicalPackage::open(const OpenMode& mode) {
    if (isOpen()) return;
    openMode = mode;

    // A failed open leaves its parts in `parts` and perhaps its temporary
    // folder; nothing else can put parts there while the package is closed.
    deleteParts(parts);
    discardTemporaryFolder();

    if (readsFolder(mode)) readParts(mode);

    if (stagesChanges(mode)) {
        tempPackageRoot = fileSystemOps.getTempName(fileSystemOps.getParentPath(packageRoot));
        boost::system::error_code errorCode;
        fileSystemOps.createFolders(tempPackageRoot, errorCode);
        if (errorCode.failed()) {
            fail("Could not create temporary directory structure for output: " + errorCode.message(), errorCode);
        }
        if (valueOf(mode) == OpenMode::Create) {
            static_cast<opc::interfaces::IPhysicalPackage*>(this)->createPart(contentTypesPartName, std::u16string(),
                                                                              FileSystemPartInfo());
        }
        staging = true;
    }
    opened = true;
}

void FileSystemPhysicalPackage::readParts(const OpenMode& mode) {
    if (!fileSystemOps.exists(packageRoot) || !fileSystemOps.isFolder(packageRoot)) {
        fail("Package does not exist",
             boost::system::errc::make_error_code(boost::system::errc::no_such_file_or_directory));
    }
    std::vector<std::u16string> files;
    fileSystemOps.getFiles(packageRoot, files, true);
    // Every part is made before any is registered, so that the map's nodes
    // lie side by side in memory, which the walks of getParts() and close then
    // read page after page. Each goes in at the map's end, which costs one
    // comparison when the listing comes in name order, as the local service
    // lists, and a search of the tree otherwise. A name listed twice is
    // registered as its later part.
    std::vector<std::unique_ptr<FileSystemPart>> made;
    made.reserve(files.size());
    const auto registerMade = [&] {
        std::size_t next = 0;
        for (std::u16string& name : files) {
            if (next == made.size()) break;
            if (name.empty()) continue;  // no part: part names are never empty
            FileSystemPart*& slot = parts.emplace_hint(parts.end(), std::move(name), nullptr)->second;
            delete std::exchange(slot, made[next++].release());
        }
    };
    try {
        for (std::u16string& path : files) {
            const std::size_t position = startsWith(path, packageRoot) ? 0 : path.find(packageRoot);
            // A path outside the folder is not expected of the service; it is no part.
            if (position == std::u16string::npos ||
                path.compare(position + packageRoot.size(), kTrashPrefix.size(), kTrashPrefix) == 0) {
                path.clear();
                continue;
            }
            path.erase(0, position + packageRoot.size());
            made.push_back(std::make_unique<FileSystemPart>(this, path, std::u16string(), mode));
        }
    } catch (...) {
        registerMade();  // what was made before the failure stays registered
        throw;
    }
    registerMade();
    getContentTypesPart();
}

bool FileSystemPhysicalPackage::isOpen() const { return opened; }

void FileSystemPhysicalPackage::cleanup() {
    deleteParts(changedParts);
    deleteParts(parts);
    discardTemporaryFolder();
    modified = false;
}

// A failed removal leaves a hidden folder beside the package, never a damaged
// package, so it is not reported.
void FileSystemPhysicalPackage::discardTemporaryFolder() {
    staging = false;
    if (tempPackageRoot.empty()) return;
    boost::system::error_code ignored;
    fileSystemOps.removeAll(tempPackageRoot, ignored);
    tempPackageRoot.clear();
}

void FileSystemPhysicalPackage::deleteParts(PartMap& map) {
    for (auto& entry : map) delete entry.second;
    map.clear();
}

// ---- Paths -----------------------------------------------------------------------

std::u16string FileSystemPhysicalPackage::getPackageRoot() const { return packageRoot; }

std::u16string FileSystemPhysicalPackage::getTempPackageRoot() const { return tempPackageRoot; }

opc::FileSystemOps& FileSystemPhysicalPackage::getFSImpl() { return fileSystemOps; }

opc::LocalFileSystemOps& FileSystemPhysicalPackage::getLocalFSImpl() { return localFileSystemOps; }

std::u16string FileSystemPhysicalPackage::getPartPath(const FileSystemPart& part) {
    return fileSystemOps.appendPath(packageRoot, part.relativePath);
}

std::u16string FileSystemPhysicalPackage::getTempPartPath(const FileSystemPart& part) {
    return fileSystemOps.appendPath(tempPackageRoot, part.relativePath);
}

// ---- Registry --------------------------------------------------------------------

bool FileSystemPhysicalPackage::hasContentTypeStream() const { return true; }

FileSystemPart* FileSystemPhysicalPackage::getContentTypesPart() const {
    if (const auto found = parts.find(contentTypesPartName); found != parts.end()) return found->second;
    if (const auto found = changedParts.find(contentTypesPartName); found != changedParts.end()) return found->second;
    fail("Content types stream does not exist");
}

opc::interfaces::IPhysicalInputStream* FileSystemPhysicalPackage::getContentTypeInputStream() {
    return getContentTypesPart()->getInputStream();
}

opc::interfaces::IPhysicalOutputStream* FileSystemPhysicalPackage::getContentTypeOutputStream() {
    modified = true;
    return getContentTypesPart()->getOutputStream();
}

std::vector<opc::interfaces::IPhysicalPart*> FileSystemPhysicalPackage::getParts() {
    const FileSystemPart* const contentTypesPart = getContentTypesPart();
    std::vector<opc::interfaces::IPhysicalPart*> result;
    result.reserve(changedParts.size() + parts.size());
    for (const PartMap* map : {&changedParts, &parts}) {
        for (const auto& entry : *map) {
            if (entry.second != contentTypesPart) result.push_back(entry.second);
        }
    }
    return result;
}

opc::interfaces::IPhysicalPart* FileSystemPhysicalPackage::createPart(const std::u16string& name,
                                                                      const std::u16string& contentType,
                                                                      const opc::interfaces::IPhysicalPartInfo&) {
    auto part = std::make_unique<FileSystemPart>(this, name, contentType, OpenMode::Create);
    FileSystemPart* const created = part.get();
    FileSystemPart*& slot = changedParts[name];
    const std::unique_ptr<FileSystemPart> displaced(std::exchange(slot, part.release()));
    // The new part takes over a part of the same name found on disk, so that
    // the name is registered once and the commit keeps the new content.
    if (const auto existing = parts.find(name); existing != parts.end()) {
        const std::unique_ptr<FileSystemPart> replaced(existing->second);
        parts.erase(existing);
    }
    modified = true;
    return created;
}

void FileSystemPhysicalPackage::deletePart(const std::u16string& name) {
    if (const auto found = parts.find(name); found != parts.end()) {
        FileSystemPart* const part = found->second;
        parts.erase(found);
        part->closeStreams();
        delete part;
        modified = true;
        return;
    }
    if (changedParts.count(name) != 0) {
        fail("A part cannot be deleted if it has just been created or modified. Package must be closed first.");
    }
    fail("Part does not exist");
}

// ---- Streams ---------------------------------------------------------------------

FileSystemInputStream* FileSystemPhysicalPackage::createFileSystemPartInputStream(FileSystemPart* part) {
    return new FileSystemInputStream(getFSImpl(), getPartPath(*part));
}

FileSystemOutputStream* FileSystemPhysicalPackage::createFileSystemPartOutputStream(FileSystemPart* part) {
    // Without a temporary folder the part's path would lie outside the
    // package, or in a folder that a failed open never made; nothing is
    // written there.
    if (!staging) fail("Failed to create or open file system output stream");

    if (valueOf(openMode) == OpenMode::ReadWrite) {
        if (const auto found = parts.find(part->name); found != parts.end()) {
            changedParts[found->first] = found->second;
            parts.erase(found);
        }
    }

    const std::u16string path = getTempPartPath(*part);
    try {
        const std::u16string folder = fileSystemOps.getParentPath(path);
        if (!fileSystemOps.exists(folder)) fileSystemOps.createFolders(folder);
    } catch (const opc::Exception& e) {
        fail("Could not create directory structure for part output stream: " + e.code().message(), e.code());
    }
    modified = true;
    return new FileSystemOutputStream(getFSImpl(), path);
}

// ---- Closing ---------------------------------------------------------------------

void FileSystemPhysicalPackage::close(bool revert) {
    if (!isOpen()) return;
    opened = false;
    ScopeGuard guard([this] { cleanup(); });
    if (valueOf(openMode) == OpenMode::Read) {
        closeParts();
    } else if (!modified || revert) {
        revertChanges();
    } else {
        commitChanges();
    }
}

void FileSystemPhysicalPackage::closeParts() {
    for (const PartMap* map : {&changedParts, &parts}) {
        for (const auto& entry : *map) entry.second->closeStreams();
    }
}

void FileSystemPhysicalPackage::revertChanges() { closeParts(); }

void FileSystemPhysicalPackage::commitChanges() {
    writeChangedParts();
    if (valueOf(openMode) == OpenMode::ReadWrite) copyUnchangedParts();
    swapInTemporaryFolder();
}

// A created part that was never written still gets its file: an empty one.
void FileSystemPhysicalPackage::writeChangedParts() {
    for (const auto& entry : changedParts) {
        FileSystemPart* const part = entry.second;
        if (part->isUnwritten()) static_cast<opc::interfaces::IPhysicalPart*>(part)->getOutputStream();
        part->closeStreams();
    }
}

void FileSystemPhysicalPackage::copyUnchangedParts() {
    for (const auto& entry : parts) {
        FileSystemPart* const part = entry.second;
        part->closeStreams();
        if (!part->isUnwritten()) continue;
        const std::u16string source = getPartPath(*part);
        const std::u16string destination = getTempPartPath(*part);
        try {
            const std::u16string targetFolder = fileSystemOps.getParentPath(destination);
            if (!fileSystemOps.exists(targetFolder)) fileSystemOps.createFolders(targetFolder);
            fileSystemOps.copy(source, destination, opc::ExistsMode::Overwrite);
        } catch (const opc::Exception& e) {
            fail("Could not copy original part to destination package: " + e.code().message(), e.code());
        }
    }
}

// The package folder changes here only, by two renames within its parent
// folder: old folder aside, temporary folder in. Every failure after the
// first rename is undone so that the old package is back at its path.
//
// A mode that stages nothing has no temporary folder: its rename fails and
// the undo puts the package folder back.
void FileSystemPhysicalPackage::swapInTemporaryFolder() {
    opc::FileSystemOps& fs = getFSImpl();
    try {
        std::u16string finalPath = packageRoot;
        std::u16string asidePath = fs.getTempName(fs.getParentPath(finalPath));
        const bool packageExisted = fs.exists(finalPath);

        if (packageExisted) {
            try {
                renameWithRetryOnPermissionDenied(fs, finalPath, asidePath);
            } catch (const opc::Exception& e) {
                fail("Could not move the original package to temporary location", e.code());
            }
        }

        try {
            renameWithRetryOnPermissionDenied(fs, tempPackageRoot, finalPath);
        } catch (const opc::Exception& e) {
            if (fs.exists(finalPath)) removeAllWithRetryOnPermissionDenied(fs, finalPath);
            if (packageExisted) renameWithRetryOnPermissionDenied(fs, asidePath, finalPath);
            fail("Could not rename the temporary package to final location", e.code());
        }
        tempPackageRoot.clear();  // it is the package now; cleanup must not remove it
        staging = false;

        if (packageExisted) {
            try {
                removeAllWithRetryOnPermissionDenied(fs, asidePath);
            } catch (const opc::Exception& e) {
                removeAllWithRetryOnPermissionDenied(fs, finalPath);
                renameWithRetryOnPermissionDenied(fs, asidePath, finalPath);
                fail("Could not remove the original package", e.code());
            }
        }
    } catch (const opc::Exception& e) {
        fail(std::string("Could not commit changes: ") + e.what() + ": " + e.code().message(), e.code());
    }
}

}  // namespace opc::fspackage
