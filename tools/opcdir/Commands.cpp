#include "Commands.h"

#include "Arguments.h"
#include "Errors.h"
#include "PackageLocking.h"
#include "Session.h"

#include <opccore/Exception.h>

namespace opcdir {

int run(const std::vector<std::string>& arguments, Io& io, opc::FileSystemOps& fileSystem) {
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
        const auto lock = lockPackage(command, args, io, fileSystem);
        command.handler(args, io, fileSystem);
        return 0;
    } catch (const UsageError& e) {
        io.err << "opcdir: " << e.what() << "\n";
        return 2;
    } catch (const Failure& e) {
        io.err << "opcdir: " << e.subject() << ": " << e.what() << "\n";
        return 1;
    } catch (const opc::Exception& e) {
        io.err << "opcdir: " << libraryCause(e) << "\n";
        return 1;
    } catch (const std::exception& e) {
        io.err << "opcdir: " << e.what() << "\n";
        return 1;
    }
}

}  // namespace opcdir
