#pragma once

#include <opccore/Export.h>

#include <ios>

namespace opc::interfaces {

// Reads the bytes of one part. No operation but open() throws: an unusable
// stream shows as a read count of 0 and as isAtEnd().
class OPCCORE_EXPORT IPhysicalInputStream {
public:
    IPhysicalInputStream(const IPhysicalInputStream&) = delete;
    IPhysicalInputStream& operator=(const IPhysicalInputStream&) = delete;

    // Opens the data at its first byte unless the stream is open already.
    // Throws opc::Exception when the data cannot be opened.
    virtual void open() = 0;

    // Reads up to count bytes into buffer and returns how many were read; 0
    // when the stream is not open or an earlier read reached the end or failed.
    virtual std::streamsize read(char* buffer, std::streamsize count) = 0;

    // True when the stream is not open, or an earlier read reached the end of
    // the data or failed.
    virtual bool isAtEnd() = 0;

    // Releases the data; open() may be called afterwards.
    virtual void close() = 0;

    virtual ~IPhysicalInputStream();

protected:
    IPhysicalInputStream() = default;
};

}  // namespace opc::interfaces
