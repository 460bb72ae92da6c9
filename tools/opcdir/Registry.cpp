#include "Registry.h"

#include "ArchiveCommands.h"
#include "PartCommands.h"
#include "RecoveryCommands.h"

namespace opcdir {

const std::vector<Command>& commands() {
    static const std::vector<Command> table = {
        {"ls",
         "ls [--long] [--json] PKG",
         "list the parts of a folder package with their sizes",
         "  -l, --long   add each part's content type from [Content_Types].xml\n"
         "               (Override by part name, else Default by extension)\n"
         "      --json   print the listing as JSON\n",
         {{"--long", "-l", false}, {"--json", "", false}},
         1,
         1,
         {Access::Read, 0},
         &listCommand},
        {"cat",
         "cat PKG PART",
         "write a part's bytes to standard output",
         "",
         {},
         2,
         2,
         {Access::Read, 0},
         &catCommand},
        {"put",
         "put PKG PART [FILE]",
         "make FILE (or standard input) the whole content of a part",
         "  The part is created when it is new. PART may be written with or without\n"
         "  its leading \"/\". FILE must be a regular file, not a symbolic link;\n"
         "  \"-\" reads standard input.\n",
         {},
         2,
         3,
         {Access::Write, 0},
         &putCommand},
        {"rm",
         "rm PKG PART...",
         "delete parts",
         "  Either every part named is deleted or none is.\n",
         {},
         2,
         kUnbounded,
         {Access::Write, 0},
         &removeCommand},
        {"new",
         "new PKG",
         "make an empty folder package with a minimal [Content_Types].xml",
         "  PKG must not exist, or be a folder with no files in it.\n",
         {},
         1,
         1,
         {Access::Create, 0},
         &newCommand},
        {"unpack",
         "unpack [--force] [--max-size N] [--max-ratio N] FILE PKG",
         "turn a ZIP-based package file (.docx, .xlsx, .pptx, ...) into a folder package",
         "  -f, --force          replace PKG even when it exists and is not empty\n"
         "      --max-size N     refuse archives that expand to more than N bytes\n"
         "                       (suffixes K, M, G; default 4G)\n"
         "      --max-ratio N    refuse entries that expand more than N times\n"
         "                       (default 1000)\n",
         {{"--force", "-f", false}, {"--max-size", "", true}, {"--max-ratio", "", true}},
         2,
         2,
         {Access::Create, 1},
         &unpackCommand},
        {"pack",
         "pack PKG FILE",
         "turn a folder package into a ZIP-based package file",
         "  [Content_Types].xml comes first, then the parts in name order, deflated,\n"
         "  with fixed timestamps: packing the same folder twice gives the same bytes.\n"
         "  FILE appears only when it is complete.\n",
         {},
         2,
         2,
         {Access::Read, 0},
         &packCommand},
        {"recover",
         "recover PKG",
         "finish or undo what an interrupted commit left, and say what was done",
         "  Puts back the package as it was, or completes the commit, and removes\n"
         "  hidden folders that interrupted commits left beside it. Every command\n"
         "  that writes a package does this first. Exit status 0 when a whole\n"
         "  package lies at PKG afterwards.\n",
         {},
         1,
         1,
         {Access::Write, 0},
         &recoverCommand},
    };
    return table;
}

const Command* findCommand(const std::string& name) {
    for (const Command& command : commands()) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

}  // namespace opcdir
