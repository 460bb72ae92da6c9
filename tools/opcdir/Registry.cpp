#include "Registry.h"

#include "ArchiveCommands.h"
#include "PartCommands.h"
#include "RecoveryCommands.h"
#include "WorkflowCommands.h"

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
         "unpack [--force] [--max-size N] [--max-ratio N] [--jobs N] FILE PKG",
         "turn a ZIP-based package file (.docx, .xlsx, .pptx, ...) into a folder package",
         "  -f, --force          replace PKG even when it exists and is not empty\n"
         "      --max-size N     refuse archives that expand to more than N bytes\n"
         "                       (suffixes K, M, G; default 4G)\n"
         "      --max-ratio N    refuse entries that expand more than N times\n"
         "                       (default 1000)\n"
         "      --jobs N         threads that inflate; default: one per processor\n",
         {{"--force", "-f", false}, {"--max-size", "", true}, {"--max-ratio", "", true}, {"--jobs", "", true}},
         2,
         2,
         {Access::Create, 1},
         &unpackCommand},
        {"pack",
         "pack [--level N] [--jobs N] PKG FILE",
         "turn a folder package into a ZIP-based package file",
         "  [Content_Types].xml comes first, then the parts in name order, with fixed\n"
         "  timestamps: packing the same folder twice gives the same bytes, whatever\n"
         "  the number of jobs. FILE appears only when it is complete.\n"
         "      --level N   0 stores, 1 (fastest) to 9 (smallest) deflate; default 6.\n"
         "                  An entry that deflating does not shrink is stored.\n"
         "      --jobs N    threads that deflate; default: one per processor\n",
         {{"--level", "", true}, {"--jobs", "", true}},
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
        {"diff",
         "diff [--text] PKG|FILE PKG|FILE",
         "list the parts that differ between two packages, folders or ZIP files",
         "  One line per part, \"added /x\", \"removed /x\" or \"changed /x\". Relationship\n"
         "  and content-types parts compare with their entries sorted, so that\n"
         "  reordering them is no change. Exit status 0 when the packages hold the\n"
         "  same parts with the same content, 1 when not, 2 on failure.\n"
         "  -t, --text   follow each changed XML part with a unified diff of both\n"
         "               sides pretty-printed\n",
         {{"--text", "-t", false}},
         2,
         2,
         {Access::ReadEach, 0},
         nullptr,
         &diffCommand,
         2},
        {"check",
         "check PKG|FILE",
         "list what would make a package unreadable, one problem a line",
         "  Parts without a content type, Overrides for missing parts, relationships\n"
         "  to missing parts, part names that break the part-name grammar or equal\n"
         "  another without regard to case, links or FIFOs among the parts, and\n"
         "  malformed XML where it must be read. Exit status 0 when there is none,\n"
         "  1 when there are, 2 on failure.\n",
         {},
         1,
         1,
         {Access::ReadEach, 0},
         nullptr,
         &checkCommand,
         2},
        {"textconv",
         "textconv PKG|FILE",
         "print a package as text for git diff",
         "  Each part under a line \"== <name> (<content type>)\": XML parts\n"
         "  pretty-printed, relationship and content-types parts with their entries\n"
         "  sorted, other parts as their size and SHA-256. For git:\n"
         "    echo '*.docx diff=opc' >> .gitattributes\n"
         "    git config diff.opc.textconv \"opcdir textconv\"\n",
         {},
         1,
         1,
         {Access::ReadEach, 0},
         &textconvCommand},
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
