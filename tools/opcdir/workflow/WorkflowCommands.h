#pragma once

#include "Commands.h"

#include <opccore/FileSystemOps.h>

#include <string>

namespace opcdir {

// The commands for keeping packages in version control. Each takes a folder
// package or a ZIP package file, reads it without changing it, writes its
// findings to io.out and a failure to io.err as one line, "opcdir: <file>:
// <cause>", and returns the exit status.

// One line per part that is only in `from` ("removed /x"), only in `to`
// ("added /x"), or in both with other content ("changed /x"), in name order.
// Relationship and content-types parts are compared in canonical form, so
// that reordering their entries is no change. With text, each changed XML
// part is followed by a unified diff of both sides pretty-printed.
// Returns 0 when nothing differs, 1 when something does, 2 on failure.
int diffCommand(const std::string& from, const std::string& to, bool text, Io& io, opc::FileSystemOps& fileSystem);

// One line per problem, "<part>: <problem>", in name order: a part without a
// content type, an Override for a missing part, an internal relationship
// whose target is missing, a part name that breaks the grammar, names equal
// without regard to case, an entry that is not a part, a part that must be
// read and is not XML. Returns 0 when there is none, 1 when there are, 2 on
// failure.
int checkCommand(const std::string& package, Io& io, opc::FileSystemOps& fileSystem);

// The package as text for line-based diffs: each part under a line
// "== <name> (<content type>)", XML parts pretty-printed (relationship and
// content-types parts in canonical form), other parts as their size and
// SHA-256. Returns 0, or 1 on failure.
int textconvCommand(const std::string& package, Io& io, opc::FileSystemOps& fileSystem);

}  // namespace opcdir
