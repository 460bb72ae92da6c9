#include "Session.h"

#include "Errors.h"
#include "PartNames.h"

#include <boost/system/error_code.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace opcdir {

using opc::interfaces::IPhysicalInputStream;
using opc::interfaces::IPhysicalOutputStream;
using opc::interfaces::IPhysicalPart;

std::string libraryCause(const opc::Exception& e) {
    std::string cause = e.what();
    const std::string detail = e.code().failed() ? e.code().message() : std::string();
    if (!detail.empty() &&
        (cause.size() < detail.size() || cause.compare(cause.size() - detail.size(), detail.size(), detail) != 0)) {
        cause += " (" + detail + ")";
    }
    return cause;
}

Session::Session(opc::FileSystemOps& fileSystem, const std::string& argument, opc::interfaces::OpenMode mode)
    : service(fileSystem), subject(argument) {
    try {
        package = std::make_unique<opc::fspackage::FileSystemPhysicalPackage>(toUtf16(argument), fileSystem);
        package->open(mode);
    } catch (const opc::Exception& e) {
        throw Failure(subject, package == nullptr ? libraryCause(e) : openFailure(e));
    }
}

std::string Session::openFailure(const opc::Exception& e) {
    const std::u16string root = package->getPackageRoot();
    // Only asked to word a failure: one that cannot be told apart further is
    // reported as the library put it.
    try {
        if (e.code() == boost::system::errc::make_error_code(boost::system::errc::no_such_file_or_directory))
            return service.exists(root) ? "not a folder" : "no such package folder";
        if (!e.code().failed()) {
            const std::u16string types = service.appendPath(root, toUtf16(kContentTypesName));
            if (!service.exists(types) || service.isFolder(types))
                return "not a package: no " + std::string(kContentTypesName);
        }
    } catch (const opc::Exception&) {
    }
    return libraryCause(e);
}

void Session::commit() {
    try {
        package->close(false);
    } catch (const opc::Exception& e) {
        throw Failure(subject, libraryCause(e));
    }
}

std::uint64_t Session::sizeOf(const std::string& partName) {
    try {
        return service.fileSize(service.appendPath(package->getPackageRoot(), toUtf16(partName.substr(1))));
    } catch (const opc::Exception& e) {
        throw Failure(subject, "cannot read part " + quoteName(partName) + ": " + libraryCause(e));
    }
}

std::vector<Listed> listParts(Session& session) {
    std::vector<Listed> listed;
    try {
        for (IPhysicalPart* part : session->getParts()) listed.push_back({toUtf8(part->getName()), part});
    } catch (const opc::Exception& e) {
        throw Failure(session.name(), libraryCause(e));
    }
    std::sort(listed.begin(), listed.end(), [](const Listed& a, const Listed& b) { return a.name < b.name; });
    listed.insert(listed.begin(), Listed{contentTypesPartName(), nullptr});
    return listed;
}

std::optional<Listed> findPart(Session& session, const std::string& partName) {
    for (const Listed& entry : listParts(session)) {
        if (entry.name == partName) return entry;
    }
    return std::nullopt;
}

IPhysicalInputStream* inputOf(Session& session, const Listed& entry) {
    try {
        return entry.part == nullptr ? session->getContentTypeInputStream() : entry.part->getInputStream();
    } catch (const opc::Exception& e) {
        throw Failure(session.name(), "cannot read part " + quoteName(entry.name) + ": " + libraryCause(e));
    }
}

std::string readWhole(Session& session, const Listed& entry) {
    IPhysicalInputStream* stream = inputOf(session, entry);
    std::string content;
    std::vector<char> buffer(kPiece);
    for (std::streamsize got; (got = stream->read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) > 0;) {
        content.append(buffer.data(), static_cast<std::size_t>(got));
    }
    stream->close();
    return content;
}

namespace {

// The stream reports only that it failed; the errno of the write that failed
// is the cause, and nothing between that write and here sets errno.
[[noreturn]] void writeFailed(Session& session, const std::string& partName, int error) {
    throw Failure(session.name(), "cannot write part " + quoteName(partName) +
                                      (error != 0 ? ": " + std::string(std::strerror(error)) : ""));
}

}  // namespace

void writeAll(
    Session& session, const std::string& partName, IPhysicalOutputStream* stream, const char* data, std::size_t count) {
    errno = 0;
    if (stream->write(data, static_cast<std::streamsize>(count)) != static_cast<std::streamsize>(count) ||
        stream->isFailed()) {
        writeFailed(session, partName, errno);
    }
}

void finishPart(Session& session, const std::string& partName, IPhysicalOutputStream* stream) {
    errno = 0;
    stream->flush();
    if (stream->isFailed()) writeFailed(session, partName, errno);
    stream->close();
}

}  // namespace opcdir
