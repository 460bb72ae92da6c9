#include "PackageView.h"

#include "Errors.h"
#include "PartNames.h"
#include "Zip.h"

#include <opccore/Exception.h>
#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalPart.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <algorithm>
#include <filesystem>
#include <map>

namespace opcdir {
namespace {

using opc::interfaces::IPhysicalInputStream;

constexpr std::size_t kPiece = std::size_t{64} * 1024;

std::string contentTypesPartName() { return "/" + std::string(kContentTypesName); }

std::string causeOf(const opc::Exception& e) {
    std::string cause = e.what();
    if (e.code().failed() && cause.find(e.code().message()) == std::string::npos)
        cause += " (" + e.code().message() + ")";
    return cause;
}

class FolderView : public PackageView {
public:
    FolderView(opc::FileSystemOps& fileSystem, const std::string& argument)
        : PackageView(argument), package(toUtf16(argument), fileSystem) {
        try {
            package.open(opc::interfaces::Read);
            for (opc::interfaces::IPhysicalPart* part : package.getParts()) parts[toUtf8(part->getName())] = part;
        } catch (const opc::Exception& e) {
            throw Failure(subject(), "cannot open package: " + causeOf(e));
        }
        names.push_back(contentTypesPartName());
        for (const auto& entry : parts) names.push_back(entry.first);
        std::sort(names.begin(), names.end());
    }

    ~FolderView() override {
        try {
            package.close(true);
        } catch (const opc::Exception&) {
            // Nothing was written: there is nothing to lose.
        }
    }

    const std::vector<std::string>& partNames() const override { return names; }

    void read(const std::string& partName, const Sink& sink) override {
        try {
            const auto found = parts.find(partName);
            IPhysicalInputStream* stream =
                found == parts.end() ? package.getContentTypeInputStream() : found->second->getInputStream();
            stream->open();
            std::vector<char> buffer(kPiece);
            for (std::streamsize got;
                 (got = stream->read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) > 0;) {
                sink(buffer.data(), static_cast<std::size_t>(got));
            }
            const bool failed = !stream->isAtEnd();
            stream->close();
            if (failed) throw Failure(subject(), "cannot read part " + quoteName(partName));
        } catch (const opc::Exception& e) {
            throw Failure(subject(), "cannot read part " + quoteName(partName) + ": " + causeOf(e));
        }
    }

    std::vector<StrayEntry> strays() override {
        namespace fs = std::filesystem;
        std::vector<StrayEntry> found;
        const fs::path root = toUtf8(package.getPackageRoot());
        std::error_code error;
        fs::recursive_directory_iterator walk(root, error);
        for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
            const fs::path relative = walk->path().lexically_relative(root);
            if (walk.depth() == 0 && relative.string() == "[trash]") {
                walk.disable_recursion_pending();
                continue;
            }
            const fs::file_status status = walk->symlink_status(error);
            if (error) break;
            const char* kind = fs::is_symlink(status)                                       ? "symbolic link"
                               : fs::is_fifo(status)                                        ? "FIFO"
                               : fs::is_socket(status)                                      ? "socket"
                               : fs::is_block_file(status) || fs::is_character_file(status) ? "device"
                                                                                            : nullptr;
            if (kind != nullptr) found.push_back({"/" + relative.string(), kind});
        }
        if (error) throw Failure(subject(), "cannot list the package folder: " + error.message());
        std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        return found;
    }

private:
    opc::fspackage::FileSystemPhysicalPackage package;
    std::map<std::string, opc::interfaces::IPhysicalPart*> parts;
    std::vector<std::string> names;
};

class ZipView : public PackageView {
public:
    ZipView(opc::FileSystemOps& fileSystem, const std::string& argument)
        : PackageView(argument), reader(fileSystem, argument, argument) {
        for (const ZipEntry& entry : reader.entries()) {
            if (!entry.name.empty() && entry.name.back() == '/') continue;
            entries.emplace("/" + entry.name, &entry);
            names.push_back("/" + entry.name);
        }
        std::sort(names.begin(), names.end());
    }

    const std::vector<std::string>& partNames() const override { return names; }

    void read(const std::string& partName, const Sink& sink) override {
        reader.read(*entries.find(partName)->second, sink);
    }

private:
    ZipReader reader;
    std::multimap<std::string, const ZipEntry*> entries;
    std::vector<std::string> names;
};

}  // namespace

std::unique_ptr<PackageView> PackageView::open(opc::FileSystemOps& fileSystem, const std::string& argument) {
    bool folder = false;
    try {
        folder = fileSystem.isFolder(toUtf16(argument));
    } catch (const opc::Exception& e) {
        throw Failure(argument, causeOf(e));
    }
    if (folder) return std::make_unique<FolderView>(fileSystem, argument);
    return std::make_unique<ZipView>(fileSystem, argument);
}

std::string PackageView::readAll(const std::string& partName) {
    std::string content;
    read(partName, [&](const char* data, std::size_t size) { content.append(data, size); });
    return content;
}

}  // namespace opcdir
