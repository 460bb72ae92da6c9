#include "Commands.h"

#include "Arguments.h"
#include "Errors.h"
#include "PackageLocking.h"
#include "Session.h"

#include <opccore/Exception.h>

namespace opcdir {

int run(const std::vector<std::string>& arguments, Io& io, opc::FileSystemOps& fileSystem) {
    int failureStatus = 1;
    try {
        const Arguments args = parseArguments(arguments);
        if (args.has("--help")) {
            io.out << helpText(args.command);
            return 0;
        }
        if (args.has("--version")) {
            io.out << "opcdir " OPCDIR_VERSION "\n";
            return 0;
        }
        const Command& command = *findCommand(args.command);
        failureStatus = command.failureStatus;
        auto lock = lockPackage(command, args, io, fileSystem);
        const auto readLocks = lockFolderOperands(command, args, io, fileSystem);
        Io commandIo = io;
        if (lock == nullptr && command.package.access == Access::Create)
            commandIo.lockCreatedPackage = [&] {
                lock = lockPackage(command, args, io, fileSystem);
                return lock != nullptr ? lock->getLockPath() : std::u16string();
            };
        if (command.statusHandler != nullptr) return command.statusHandler(args, commandIo, fileSystem);
        command.handler(args, commandIo, fileSystem);
        return 0;
    } catch (const UsageError& e) {
        io.err << "opcdir: " << e.what() << "\n";
        return 2;
    } catch (const Failure& e) {
        io.err << "opcdir: " << e.subject() << ": " << e.what() << "\n";
        return failureStatus;
    } catch (const opc::Exception& e) {
        io.err << "opcdir: " << libraryCause(e) << "\n";
        return failureStatus;
    } catch (const std::exception& e) {
        io.err << "opcdir: " << e.what() << "\n";
        return failureStatus;
    }
}

}  // namespace opcdir
