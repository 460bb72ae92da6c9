#pragma once

#include "Registry.h"

#include <opccore/FileSystemOps.h>

#include <string>

namespace opcdir {

// The commands for keeping packages in version control. Each takes folder
// packages or ZIP package files, reads them without changing anything and
// throws Failure when it cannot.

// diff FROM TO: one line per part that is only in FROM ("removed /x"), only
// in TO ("added /x"), or in both with other content ("changed /x"), in name
// order. Relationship and content-types parts are compared in canonical form,
// so that reordering their entries is no change. With --text, each changed
// XML part is followed by a unified diff of both sides pretty-printed.
// Returns 0 when nothing differs, 1 when something does.
int diffCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);

// check PKG: one line per problem, "<part>: <problem>", in name order: a
// part without a content type, an Override for a missing part, an internal
// relationship whose target is missing, a part name that breaks the grammar,
// names equal without regard to case, an entry that is not a part, a part
// that must be read and is not XML. Returns 0 when there is none, 1 when
// there are.
int checkCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);

// textconv PKG: the package as text for line-based diffs: each part under a
// line "== <name> (<content type>)", XML parts pretty-printed (relationship
// and content-types parts in canonical form), other parts as their size and
// SHA-256.
void textconvCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem);

}  // namespace opcdir
