#include "PackageLocking.h"

#include "Errors.h"
#include "PartNames.h"
#include "Session.h"

#include <opccore/Exception.h>

#include <boost/system/error_code.hpp>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <utility>

namespace opcdir {
namespace {

using opc::fspackage::PackageLock;
using Wait = std::optional<std::chrono::nanoseconds>;

constexpr std::chrono::seconds kPatience(1);  // how long a terminal waits before it is told why

bool timedOut(const opc::Exception& e) {
    return e.code() == boost::system::errc::make_error_code(boost::system::errc::timed_out);
}

// Where the lock file cannot be made, no writer that takes turns can write
// either, or the user could not read the package anyway.
bool mayReadUnlocked(const opc::Exception& e) {
    const int value = e.code().category() == boost::system::system_category() ? e.code().value() : 0;
    return value == EACCES || value == EPERM || value == EROFS;
}

Wait parseWait(const Arguments& args) {
    const auto given = args.values.find("--wait");
    if (given == args.values.end()) return std::nullopt;
    const std::string& text = given->second;
    const std::size_t point = text.find('.');
    const bool digitsOnly = text.find_first_not_of("0123456789.") == std::string::npos &&
                            (point == std::string::npos || text.find('.', point + 1) == std::string::npos);
    const double seconds = digitsOnly && text != "." && !text.empty() ? std::strtod(text.c_str(), nullptr) : -1;
    if (seconds < 0 || seconds > 1e9)
        throw UsageError("--wait needs a number of seconds such as 5 or 0.5, not '" + text + "'");
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(seconds));
}

// Whether the folder that is to hold the package exists. Missing, there is
// no package to read or write; a package to create there is made with its
// folders by one rename, and a refused command must leave no folder behind.
bool hasFolder(opc::FileSystemOps& fileSystem, const std::string& name, Access access) {
    try {
        if (fileSystem.isFolder(fileSystem.getParentPath(fileSystem.normalizePath(toUtf16(name))))) return true;
    } catch (const opc::Exception& e) {
        throw Failure(name, libraryCause(e));
    }
    if (access != Access::Create) throw Failure(name, "no such package folder");
    return false;
}

// Takes the lock of the package name, whose folder's folder exists.
std::unique_ptr<PackageLock> takeLock(
    const std::string& name, Access access, Wait wait, const Arguments& args, Io& io, opc::FileSystemOps& fileSystem) {
    const opc::LockMode mode = access == Access::Read ? opc::LockMode::Shared : opc::LockMode::Exclusive;
    const auto take = [&](Wait timeout) {
        return std::make_unique<PackageLock>(toUtf16(name), mode, fileSystem, timeout);
    };
    try {
        if (!io.errIsTerminal || (wait && *wait <= kPatience)) return take(wait);
        try {
            return take(kPatience);
        } catch (const opc::Exception& e) {
            if (!timedOut(e)) throw;
        }
        io.err << "opcdir: " << name << ": waiting for another process using the package...\n" << std::flush;
        return take(wait ? Wait(*wait - kPatience) : std::nullopt);
    } catch (const opc::Exception& e) {
        if (timedOut(e))
            throw Failure(name, "still in use by another process after --wait " + args.values.at("--wait") + " s");
        if (access == Access::Read && mayReadUnlocked(e)) return nullptr;
        throw Failure(name, "cannot lock the package: " + e.code().message());
    }
}

}  // namespace

std::unique_ptr<PackageLock> lockPackage(const Command& command,
                                         const Arguments& args,
                                         Io& io,
                                         opc::FileSystemOps& fileSystem) {
    const Access access = command.package.access;
    if (access == Access::None || access == Access::ReadEach) return nullptr;
    const std::string& name = args.operands.at(command.package.operand);
    const Wait wait = parseWait(args);
    if (!hasFolder(fileSystem, name, access)) return nullptr;
    return takeLock(name, access, wait, args, io, fileSystem);
}

std::vector<std::unique_ptr<PackageLock>> lockFolderOperands(const Command& command,
                                                             const Arguments& args,
                                                             Io& io,
                                                             opc::FileSystemOps& fileSystem) {
    std::vector<std::unique_ptr<PackageLock>> locks;
    if (command.package.access != Access::ReadEach) return locks;
    const Wait wait = parseWait(args);
    for (const std::string& name : args.operands) {
        bool folder = false;
        try {
            folder = fileSystem.isFolder(fileSystem.normalizePath(toUtf16(name)));
        } catch (const opc::Exception& e) {
            throw Failure(name, libraryCause(e));
        }
        if (!folder) continue;
        if (auto lock = takeLock(name, Access::Read, wait, args, io, fileSystem)) locks.push_back(std::move(lock));
    }
    return locks;
}

}  // namespace opcdir
