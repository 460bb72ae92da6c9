#include "PackageView.h"

#include "Errors.h"
#include "PartNames.h"
#include "Session.h"
#include "Zip.h"

#include <opccore/Exception.h>
#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalPart.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <algorithm>
#include <map>

namespace opcdir {
namespace {

using opc::interfaces::IPhysicalInputStream;

constexpr std::size_t kPiece = std::size_t{64} * 1024;

const char* kindName(opc::IrregularKind kind) {
    switch (kind) {
        case opc::IrregularKind::SymbolicLink: return "symbolic link";
        case opc::IrregularKind::Fifo: return "FIFO";
        case opc::IrregularKind::Socket: return "socket";
        case opc::IrregularKind::Device: return "device";
    }
    return "entry";
}

class FolderView : public PackageView {
public:
    FolderView(opc::FileSystemOps& fileSystem, const std::string& argument)
        : PackageView(argument), service(fileSystem), package(toUtf16(argument), fileSystem) {
        try {
            package.open(opc::interfaces::Read);
            for (opc::interfaces::IPhysicalPart* part : package.getParts()) parts[toUtf8(part->getName())] = part;
        } catch (const opc::Exception& e) {
            throw Failure(subject(), "cannot open package: " + libraryCause(e));
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
            throw Failure(subject(), "cannot read part " + quoteName(partName) + ": " + libraryCause(e));
        }
    }

    std::vector<StrayEntry> strays() override {
        const std::u16string root = package.getPackageRoot();
        std::vector<opc::IrregularEntry> irregular;
        try {
            service.getIrregularEntries(root, irregular);
        } catch (const opc::Exception& e) {
            throw Failure(subject(), "cannot list the package folder: " + libraryCause(e));
        }
        std::vector<StrayEntry> found;
        for (const opc::IrregularEntry& entry : irregular) {
            const std::string partName = toUtf8(std::u16string_view(entry.path).substr(root.size()));
            if (partName == "/[trash]" || partName.rfind("/[trash]/", 0) == 0) continue;  // the library's own
            found.push_back({partName, kindName(entry.kind)});
        }
        std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
        return found;
    }

private:
    opc::FileSystemOps& service;
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
        throw Failure(argument, libraryCause(e));
    }
    if (folder) {
        try {
            return std::make_unique<FolderView>(fileSystem, argument);
        } catch (const opc::Exception& e) {  // from the package's constructor
            throw Failure(argument, "cannot open package: " + libraryCause(e));
        }
    }
    return std::make_unique<ZipView>(fileSystem, argument);
}

std::string PackageView::readAll(const std::string& partName) {
    std::string content;
    read(partName, [&](const char* data, std::size_t size) { content.append(data, size); });
    return content;
}

}  // namespace opcdir
