#pragma once

// Small fixtures shared by the opening, registry, stream and corpus tests.

#include "support/FaultyFileSystemOps.h"
#include "support/TreeSnapshot.h"

#include <opccore/interfaces/IPhysicalPackage.h>
#include <opccore/interfaces/IPhysicalPart.h>
#include <opcfspackage/FileSystemPart.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace opc::test::fspackage {

// Relative file path -> bytes.
using Files = std::map<std::string, std::string>;

// Writes each file below folder (made if missing), and nothing else.
void writeFiles(const std::filesystem::path& folder, const Files& files);

// folder/pkg holding a content-types file and files; returns folder's snapshot.
TreeSnapshot writePackage(const std::filesystem::path& folder, const Files& files);

// The names getParts() lists, in its order.
std::vector<std::u16string> partNames(opc::interfaces::IPhysicalPackage& package);

// The part of that name among getParts(); throws std::runtime_error, which
// fails the test, when there is none.
opc::interfaces::IPhysicalPart* findPart(opc::interfaces::IPhysicalPackage& package, const std::u16string& name);

// The library's own part class behind an interface pointer.
opc::fspackage::FileSystemPart& fsPart(opc::interfaces::IPhysicalPart* part);

// Makes every folder creation and output-stream opening fail. For packages
// without a temporary folder, whose staged part paths would lie below the
// root of the file system: should the library ever write there, the write
// fails instead.
void forbidWrites(FaultyFileSystemOps& ops);

// The hooks of the recorded calls, in order.
std::vector<Hook> hooksCalled(const FaultyFileSystemOps& ops);

// How many of this process's file descriptors lie on a file below folder.
int openFilesBelow(const std::filesystem::path& folder);

// The last segment of path, as the file-system name it is.
std::string baseName(const std::u16string& path);

}  // namespace opc::test::fspackage
