#pragma once

#include <opccore/FileSystemOps.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>
#include <opcfspackage/Export.h>
#include <opcfspackage/FileSystemStream.h>

#include <ostream>
#include <string>

namespace opc::fspackage {

// Writes one part's file in the temporary package folder, from an emptied
// file on. Made open; after close() it stays closed. Only the constructor
// throws.
class OPCFSPACKAGE_EXPORT FileSystemOutputStream : public opc::interfaces::IPhysicalOutputStream,
                                                   public FileSystemStream<std::ostream> {
public:
    // Opens filePath for writing through service, which must outlive the
    // stream. Throws opc::Exception "Failed to create or open file system
    // output stream" (empty code) when the file cannot be opened.
    FileSystemOutputStream(opc::FileSystemOps& service, const std::u16string& filePath);

    // Returns count whatever the write did; a failure shows from the next call
    // on, through isFailed() and counts of 0.
    std::streamsize write(const char* buffer, std::streamsize count) override;
    bool isFailed() override;
    void flush() override;
    // Releases the file without flushing it itself; the last release of the
    // standard stream flushes and closes it.
    void close() override;

    ~FileSystemOutputStream() override;
};

}  // namespace opc::fspackage
