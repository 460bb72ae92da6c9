#pragma once

#include <opccore/FileSystemOps.h>
#include <opccore/LocalFileSystemOps.h>
#include <opccore/interfaces/IPhysicalPackage.h>
#include <opccore/interfaces/OpenMode.h>
#include <opcfspackage/Export.h>
#include <opcfspackage/FileSystemInputStream.h>
#include <opcfspackage/FileSystemOutputStream.h>
#include <opcfspackage/FileSystemPart.h>

#include <map>
#include <string>
#include <vector>

namespace opc::fspackage {

// An Open Packaging Conventions package kept as a folder: every part is the
// file at its name's path below the folder, "/[Content_Types].xml" is the
// content-types stream, and nothing below "[trash]" in the folder is a part.
//
// Reading goes to the package folder. Writing is staged in a temporary folder
// beside it; the package folder changes only when a modified package is
// closed with commit, and then as a whole: the old folder is moved aside, the
// completed temporary folder renamed into place and the old folder removed,
// with undo when a step fails.
//
// Not thread-safe; one thread at a time uses a package, its parts and input
// streams. An output stream, once returned, touches neither package nor part:
// one thread may write, flush and close it while another uses the package,
// until the package is closed or the stream's part deleted or asked for its
// output stream again.
class OPCFSPACKAGE_EXPORT FileSystemPhysicalPackage : public opc::interfaces::IPhysicalPackage {
public:
    // A package at the normalised packagePath, doing all file-system work
    // through service. Touches nothing on disk.
    // REQUIRES: service outlives the package and every stream of it.
    FileSystemPhysicalPackage(const std::u16string& packagePath, opc::FileSystemOps& service);
    // The same through the package's own LocalFileSystemOps.
    explicit FileSystemPhysicalPackage(const std::u16string& packagePath);

    // Discards uncommitted changes and removes any temporary folder left.
    ~FileSystemPhysicalPackage() override;

    // Always true.
    bool hasContentTypeStream() const override;
    opc::interfaces::IPhysicalInputStream* getContentTypeInputStream() override;
    // Marks the package modified, even when the content-types part is missing.
    opc::interfaces::IPhysicalOutputStream* getContentTypeOutputStream() override;
    // Changed parts first, then unchanged ones, each in name order (code unit
    // by code unit); never the content-types part.
    std::vector<opc::interfaces::IPhysicalPart*> getParts() override;

    // Read: reads the folder's parts. Create: starts an empty package whose
    // content-types part is registered. ReadWrite: both reads the parts and
    // stages changes. Any other mode only marks the package open. Does nothing
    // when the package is open.
    //
    // Throws "Package does not exist" (errc::no_such_file_or_directory,
    // generic category) when, in Read or ReadWrite, no folder is at the path;
    // "Content types stream does not exist" when it holds no
    // "[Content_Types].xml"; "Could not create temporary directory structure
    // for output: " + the code's text, carrying the code, when the temporary
    // folder cannot be made.
    void open(const opc::interfaces::OpenMode& mode) override;

    // Ends the use of an open package: Read closes the streams; an unmodified
    // package or revert true discards; otherwise the changes are committed.
    // Every part object and the temporary folder are released whatever
    // happens, and isOpen() is false afterwards, also when close throws.
    void close(bool revert) override;

    // Registers a new, empty part in the changed parts. A part of that name
    // found on disk (ReadWrite) is replaced by it.
    opc::interfaces::IPhysicalPart* createPart(const std::u16string& name,
                                               const std::u16string& contentType,
                                               const opc::interfaces::IPhysicalPartInfo& info) override;

    // Throws "Part does not exist", or "A part cannot be deleted if it has just
    // been created or modified. Package must be closed first."
    void deletePart(const std::u16string& name) override;

    std::u16string getPackageRoot() const;
    // Empty while there is no temporary package folder.
    std::u16string getTempPackageRoot() const;
    opc::FileSystemOps& getFSImpl();
    opc::LocalFileSystemOps& getLocalFSImpl();
    bool isOpen() const;

    // Deletes every part, removes the temporary folder (ignoring failures) and
    // clears the modified flag. close() runs it on every exit path.
    void cleanup();

    // Throws "Content types stream does not exist" when neither map holds it.
    FileSystemPart* getContentTypesPart() const;

    // A new, open stream on the part's file in the package folder; the caller
    // owns it.
    FileSystemInputStream* createFileSystemPartInputStream(FileSystemPart* part);

    // A new, open stream on the part's file in the temporary package folder,
    // whose folders it creates; the caller owns it. In ReadWrite an unchanged
    // part becomes a changed one. Refused ("Failed to create or open file
    // system output stream") when there is no temporary folder.
    FileSystemOutputStream* createFileSystemPartOutputStream(FileSystemPart* part);

    // Closes every part's streams; parts stay registered.
    void closeParts();
    // The same: the temporary folder and parts are discarded by cleanup().
    void revertChanges();
    // Completes the temporary folder and swaps it in for the package folder.
    // Only close() calls it.
    void commitChanges();

private:
    using PartMap = std::map<std::u16string, FileSystemPart*>;
    friend class FileSystemPart;

    std::u16string getPartPath(const FileSystemPart& part);
    std::u16string getTempPartPath(const FileSystemPart& part);
    void readParts(const opc::interfaces::OpenMode& mode);
    void writeChangedParts();
    void copyUnchangedParts();
    void swapInTemporaryFolder();
    // Removes the temporary folder, ignoring failure, and forgets it.
    void discardTemporaryFolder();
    static void deleteParts(PartMap& map);

    opc::LocalFileSystemOps localFileSystemOps;
    opc::FileSystemOps& fileSystemOps;
    std::u16string packageRoot;
    std::u16string tempPackageRoot;
    std::u16string contentTypesPartName;
    opc::interfaces::OpenMode openMode;
    bool opened;
    bool modified;
    PartMap parts;
    PartMap changedParts;
    // The open in effect made the temporary folder, and it is not yet
    // discarded or swapped in: output streams need it. A failed open keeps
    // tempPackageRoot's name without the folder.
    bool staging;
};

}  // namespace opc::fspackage
