#pragma once

// A package folder with parts in nested folders, the changes the commit tests
// make to it, and what its parent folder holds before and after the commit.
// The parent folder holds nothing but the package, so a snapshot of it also
// catches hidden folders a commit leaves beside the package.

#include "support/TreeSnapshot.h"

#include <opcfspackage/FileSystemPhysicalPackage.h>

#include <filesystem>
#include <map>
#include <string>

namespace opc::test::commit {

// Relative file path -> bytes.
using Files = std::map<std::string, std::string>;

// A snapshot of folder `top` holding files: every file plus every folder on
// the way to it.
TreeSnapshot treeOf(const std::string& top, const Files& files);

// The entries of snapshot below its top-level entry `top`, renamed to lie
// below `as`. Empty when there is no such entry.
TreeSnapshot subtree(const TreeSnapshot& snapshot, const std::string& top, const std::string& as);

// The top-level entry names of snapshot ("pkg", ".opc-0123..."), sorted.
std::vector<std::string> topLevelNames(const TreeSnapshot& snapshot);

// Writes each file below folder, and nothing else.
void writeFiles(const std::filesystem::path& folder, const Files& files);

// The sample package: changed, deleted and unchanged parts in nested folders,
// a "[trash]" folder and an empty folder.
Files sampleFiles();
// Writes the sample package at parent/pkg; returns the snapshot of parent.
TreeSnapshot writeSamplePackage(const std::filesystem::path& parent);
// On the open (ReadWrite) sample package: rewrites /word/document.xml,
// deletes /docProps/core.xml and /custom/item.xml, creates /new/added.xml
// (written) and /new/deeper/unwritten.xml (never written), and leaves an
// input stream of /word/styles.xml open.
void applySampleChanges(opc::fspackage::FileSystemPhysicalPackage& package);
// The snapshot of parent after the sample changes were committed.
TreeSnapshot sampleAfterCommit();

// The part of that name among getParts(); throws std::runtime_error when
// there is none.
opc::interfaces::IPhysicalPart* findPart(opc::interfaces::IPhysicalPackage& package, const std::u16string& name);

// How many of this process's file descriptors lie on a file below folder.
int openFilesBelow(const std::filesystem::path& folder);

}  // namespace opc::test::commit
