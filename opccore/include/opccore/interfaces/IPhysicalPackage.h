#pragma once

#include <opccore/Export.h>
#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>
#include <opccore/interfaces/IPhysicalPart.h>
#include <opccore/interfaces/IPhysicalPartInfo.h>
#include <opccore/interfaces/OpenMode.h>

#include <string>
#include <vector>

namespace opc::interfaces {

// The physical layer of an Open Packaging Conventions package: a set of named
// parts plus the content-types stream. Every failure is an opc::Exception.
//
// Calling order: open(mode); then, in any order, the part and stream
// operations; then close(false) to commit or close(true) to discard. A closed
// package may be opened again. Destroying an open package discards its changes.
class OPCCORE_EXPORT IPhysicalPackage {
public:
    IPhysicalPackage(const IPhysicalPackage&) = delete;
    IPhysicalPackage& operator=(const IPhysicalPackage&) = delete;

    virtual ~IPhysicalPackage();

    // Whether the content types are a stream reached through the next two
    // operations.
    virtual bool hasContentTypeStream() const = 0;

    // The input stream of the content-types part "/[Content_Types].xml".
    virtual IPhysicalInputStream* getContentTypeInputStream() = 0;

    // The output stream of the content-types part. Asking for it counts as a
    // change of the package.
    virtual IPhysicalOutputStream* getContentTypeOutputStream() = 0;

    // Every part except the content-types part. The pointers are owned by the
    // package and valid until the part is deleted or the package closed.
    virtual std::vector<IPhysicalPart*> getParts() = 0;

    // Opens the package; does nothing when it is open already.
    virtual void open(const OpenMode& mode) = 0;

    // revert true discards every change since open; false commits them, if
    // any, except that a package opened with Read is never committed.
    virtual void close(bool revert) = 0;

    // Registers a new, empty part. info is only borrowed for the call.
    virtual IPhysicalPart* createPart(const std::u16string& name,
                                      const std::u16string& contentType,
                                      const IPhysicalPartInfo& info) = 0;

    // Removes an existing part that has not been created or changed since open.
    virtual void deletePart(const std::u16string& name) = 0;

protected:
    IPhysicalPackage() = default;
};

}  // namespace opc::interfaces
