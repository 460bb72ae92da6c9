#include "RecoveryCommands.h"

#include "Errors.h"
#include "PartNames.h"
#include "Session.h"

#include <opccore/Exception.h>

#include <ostream>

namespace opcdir {

using opc::RecoveryReport;

RecoveryReport recoverPackage(opc::FileSystemOps& fileSystem, const std::string& packageName) {
    try {
        return fileSystem.recover(toUtf16(packageName));
    } catch (const opc::Exception& e) {
        throw Failure(packageName, "cannot recover: " + libraryCause(e));
    }
}

void recoverCommand(const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const std::string& packageName = args.operands[0];
    const RecoveryReport report = recoverPackage(fileSystem, packageName);
    std::string done;
    switch (report.swap) {
        case RecoveryReport::Swap::None: break;
        case RecoveryReport::Swap::RestoredOld:
            done = "put back the package as it was before an unfinished commit";
            break;
        case RecoveryReport::Swap::CompletedNew: done = "completed an unfinished commit"; break;
        case RecoveryReport::Swap::InProgress: done = "another process is committing; left alone"; break;
    }
    if (report.removedFolders > 0) {
        done += (done.empty() ? "" : "; ") + std::string("removed ") + std::to_string(report.removedFolders) +
                (report.removedFolders == 1 ? " folder" : " folders") + " left by unfinished commits";
    }
    // Checked before anything is said, so that a failing check is the
    // command's one line.
    bool whole = false;
    try {
        whole = report.packageExists && report.swap != RecoveryReport::Swap::InProgress &&
                fileSystem.exists(fileSystem.appendPath(toUtf16(packageName), toUtf16(kContentTypesName)));
    } catch (const opc::Exception& e) {
        throw Failure(packageName, libraryCause(e));
    }
    io.out << packageName << ": " << (done.empty() ? "nothing to recover" : done) << "\n";
    if (!whole) throw Failure(packageName, "no whole package here");
}

}  // namespace opcdir
