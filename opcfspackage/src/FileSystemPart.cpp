#include <opccore/Exception.h>
#include <opcfspackage/FileSystemPart.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <string_view>

namespace opc::fspackage {
namespace {

[[noreturn]] void fail(const char* message) { throw opc::Exception(message, boost::system::error_code()); }

bool isValidSegment(std::u16string_view segment) { return !segment.empty() && segment != u"." && segment != u".."; }

// A name that could reach outside the package folder, or that no file can
// carry, is refused before any path is made of it.
bool isValidPartName(std::u16string_view name) {
    if (name.empty() || name.front() != u'/') return false;
    std::size_t start = 1;
    for (std::size_t i = 1; i < name.size(); ++i) {
        const char16_t unit = name[i];
        if (unit > u'/') continue;  // most units, at the cost of one comparison
        if (unit == u'\0') return false;
        if (unit != u'/') continue;
        if (!isValidSegment(name.substr(start, i - start))) return false;
        start = i + 1;
    }
    return isValidSegment(name.substr(start));
}

}  // namespace

FileSystemPart::FileSystemPart(FileSystemPhysicalPackage* owner,
                               const std::u16string& partName,
                               const std::u16string& partContentType,
                               const opc::interfaces::OpenMode& mode)
    : package(owner), name(partName), relativePath(partName.substr(1)), contentType(partContentType), openMode(mode) {
    if (!isValidPartName(name)) fail("Invalid part name");
    switch (openMode) {
        case opc::interfaces::Read:
        case opc::interfaces::ReadWrite:
            if (!package->getFSImpl().exists(package->getPartPath(*this))) fail("Cannot read. File does not exist.");
            break;
        case opc::interfaces::Create:
            if (package->getFSImpl().exists(package->getTempPartPath(*this)))
                fail("Cannot create. File already exists.");
            break;
        default: break;
    }
}

std::u16string FileSystemPart::getName() { return name; }

std::u16string FileSystemPart::getContentType() { return contentType; }

opc::interfaces::IPhysicalInputStream* FileSystemPart::getInputStream() {
    if (!inputStream) inputStream.reset(package->createFileSystemPartInputStream(this));
    if (inputStream->isStreamBad()) {
        fail("Input stream is in an invalid state");
    }
    return inputStream.get();
}

opc::interfaces::IPhysicalOutputStream* FileSystemPart::getOutputStream() {
    if (!outputStream) outputStream.reset(package->createFileSystemPartOutputStream(this));
    if (outputStream->isStreamBad()) {
        fail("Output stream is in an invalid state");
    }
    unwritten = false;
    return outputStream.get();
}

FileSystemPart::~FileSystemPart() { closeStreams(); }

void FileSystemPart::closeStreams() {
    if (inputStream) {
        static_cast<opc::interfaces::IPhysicalInputStream&>(*inputStream).close();
        inputStream.reset();
    }
    if (outputStream) {
        static_cast<opc::interfaces::IPhysicalOutputStream&>(*outputStream).close();
        outputStream.reset();
    }
}

bool FileSystemPart::isUnwritten() { return unwritten; }

}  // namespace opc::fspackage
