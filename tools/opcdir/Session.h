#pragma once

#include <opccore/Exception.h>
#include <opccore/FileSystemOps.h>
#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>
#include <opccore/interfaces/IPhysicalPart.h>
#include <opccore/interfaces/OpenMode.h>
#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace opcdir {

// How many bytes a command moves at a time.
inline constexpr std::size_t kPiece = std::size_t{64} * 1024;

// The message of a library failure, with the operating system's wording of
// its code added when the message does not end with it already.
std::string libraryCause(const opc::Exception& e);

// A package opened for one command. Every library failure leaves it as a
// Failure about the package as the user named it. Destroying the session
// discards what the command changed; commit() keeps it.
class Session {
public:
    // Throws Failure "no such package folder", "not a folder" or "not a
    // package: no [Content_Types].xml" for what cannot be opened as a package.
    Session(opc::FileSystemOps& fileSystem, const std::string& argument, opc::interfaces::OpenMode mode);

    opc::fspackage::FileSystemPhysicalPackage* operator->() { return package.get(); }
    const std::string& name() const { return subject; }
    opc::FileSystemOps& fileSystem() { return service; }

    // Closes the package, committing what changed.
    void commit();

    // The size of the part's file, for listings and ZIP headers; the bytes
    // themselves are only read through the part's stream.
    std::uint64_t sizeOf(const std::string& partName);

private:
    // Why the package could not be opened, as the user would put it.
    std::string openFailure(const opc::Exception& e);

    opc::FileSystemOps& service;
    std::string subject;
    std::unique_ptr<opc::fspackage::FileSystemPhysicalPackage> package;
};

// A part as commands see it: its UTF-8 name and, but for the content-types
// part, its library object.
struct Listed {
    std::string name;                      // UTF-8, with the leading "/"
    opc::interfaces::IPhysicalPart* part;  // null for the content-types part
};

// "/[Content_Types].xml" first, then the parts in byte order of their names:
// the order of listings and of packed archives.
std::vector<Listed> listParts(Session& session);

std::optional<Listed> findPart(Session& session, const std::string& partName);

// The entry's input stream; a failure to open it names the part.
opc::interfaces::IPhysicalInputStream* inputOf(Session& session, const Listed& entry);

std::string readWhole(Session& session, const Listed& entry);

// Writes count bytes, or throws Failure naming the part and, where the C
// library left one, the cause.
void writeAll(Session& session,
              const std::string& partName,
              opc::interfaces::IPhysicalOutputStream* stream,
              const char* data,
              std::size_t count);

// Flushes and closes the stream, or throws Failure as writeAll does: the
// last bytes can fail where the writes before them did not.
void finishPart(Session& session, const std::string& partName, opc::interfaces::IPhysicalOutputStream* stream);

}  // namespace opcdir
