#pragma once

#include <opccore/Export.h>
#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>

#include <string>

namespace opc::interfaces {

// One part of a physical package. The package owns it; the stream pointers it
// hands out are owned by the part, never null, and valid until the package
// closes the part's streams or deletes the part.
class OPCCORE_EXPORT IPhysicalPart {
public:
    IPhysicalPart(const IPhysicalPart&) = delete;
    IPhysicalPart& operator=(const IPhysicalPart&) = delete;

    // The part name, absolute within the package: "/word/document.xml".
    virtual std::u16string getName() = 0;

    // The content type given to createPart; empty for a part found in storage.
    virtual std::u16string getContentType() = 0;

    // The part's input stream, made and opened on first use, then the same
    // object on every call.
    virtual IPhysicalInputStream* getInputStream() = 0;

    // The part's output stream, made on first use, then the same object on
    // every call. What is written through it becomes the part's whole content.
    virtual IPhysicalOutputStream* getOutputStream() = 0;

    virtual ~IPhysicalPart();

protected:
    IPhysicalPart() = default;
};

}  // namespace opc::interfaces
