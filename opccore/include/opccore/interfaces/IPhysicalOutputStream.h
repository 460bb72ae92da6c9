#pragma once

#include <opccore/Export.h>

#include <ios>

namespace opc::interfaces {

// Writes the whole content of one part. No operation throws: an unusable
// stream shows as a write count of 0 and as isFailed().
class OPCCORE_EXPORT IPhysicalOutputStream {
public:
    IPhysicalOutputStream(const IPhysicalOutputStream&) = delete;
    IPhysicalOutputStream& operator=(const IPhysicalOutputStream&) = delete;

    // Writes count bytes from buffer and returns count; 0, writing nothing,
    // when the stream is not open or an earlier operation failed.
    virtual std::streamsize write(const char* buffer, std::streamsize count) = 0;

    // True when the stream is not open or an earlier operation failed.
    virtual bool isFailed() = 0;

    // Hands buffered bytes to storage when the stream is open.
    virtual void flush() = 0;

    // Releases the data. An output stream is never reopened.
    virtual void close() = 0;

    virtual ~IPhysicalOutputStream();

protected:
    IPhysicalOutputStream() = default;
};

}  // namespace opc::interfaces
