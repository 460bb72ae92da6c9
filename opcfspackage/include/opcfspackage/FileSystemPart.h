#pragma once

#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>
#include <opccore/interfaces/IPhysicalPart.h>
#include <opccore/interfaces/OpenMode.h>
#include <opcfspackage/Export.h>
#include <opcfspackage/FileSystemInputStream.h>
#include <opcfspackage/FileSystemOutputStream.h>

#include <boost/core/noncopyable.hpp>

#include <memory>
#include <string>

namespace opc::fspackage {

class FileSystemPhysicalPackage;

// A part of a FileSystemPhysicalPackage: the file at the part name's path
// below the package folder. It reads that file, and writes its twin in the
// temporary package folder. The package owns it.
class OPCFSPACKAGE_EXPORT FileSystemPart : public opc::interfaces::IPhysicalPart, private boost::noncopyable {
public:
    // REQUIRES: owner outlives the part.
    // Throws std::out_of_range for an empty name; opc::Exception "Invalid part
    // name" for a name without a leading "/", with an empty, "." or ".."
    // segment or a U+0000; "Cannot read. File does not exist." when mode is
    // Read or ReadWrite and the file is missing from the package folder;
    // "Cannot create. File already exists." when mode is Create and the file
    // exists in the temporary package folder. All with the empty code.
    FileSystemPart(FileSystemPhysicalPackage* owner,
                   const std::u16string& partName,
                   const std::u16string& partContentType,
                   const opc::interfaces::OpenMode& mode);

    std::u16string getName() override;
    std::u16string getContentType() override;

    // Throws "Failed to create or open file system input stream" when the
    // file is missing from the package folder, "Input stream is in an invalid
    // state" when the stream's badbit is set.
    opc::interfaces::IPhysicalInputStream* getInputStream() override;

    // Throws "Failed to create or open file system output stream",
    // "Could not create directory structure for part output stream: " + the
    // code's text, or "Output stream is in an invalid state".
    opc::interfaces::IPhysicalOutputStream* getOutputStream() override;

    // Closes the part's streams first.
    ~FileSystemPart() override;

    // Closes and destroys the input stream, then the output stream.
    void closeStreams();

    // True until getOutputStream() first succeeds.
    bool isUnwritten();

private:
    friend class FileSystemPhysicalPackage;

    FileSystemPhysicalPackage* package;
    std::u16string name;
    std::u16string relativePath;  // name without its leading "/"
    std::u16string contentType;
    opc::interfaces::OpenMode openMode;
    std::unique_ptr<FileSystemInputStream> inputStream;
    std::unique_ptr<FileSystemOutputStream> outputStream;
    bool unwritten = true;
};

}  // namespace opc::fspackage
