#pragma once

#include <opccore/FileSystemOps.h>
#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opcfspackage/Export.h>
#include <opcfspackage/FileSystemStream.h>

#include <istream>
#include <string>

namespace opc::fspackage {

// Reads one part's file from the package folder. Made open; close() releases
// the file and open() starts again at its first byte. Only the constructor and
// open() throw.
class OPCFSPACKAGE_EXPORT FileSystemInputStream : public opc::interfaces::IPhysicalInputStream,
                                                  public FileSystemStream<std::istream> {
public:
    // Opens filePath for reading through service, which must outlive the
    // stream. Throws opc::Exception "Failed to create or open file system
    // input stream" (empty code) when the file cannot be opened.
    FileSystemInputStream(opc::FileSystemOps& service, const std::u16string& filePath);

    void open() override;
    std::streamsize read(char* buffer, std::streamsize count) override;
    bool isAtEnd() override;
    void close() override;

    ~FileSystemInputStream() override;
};

}  // namespace opc::fspackage
