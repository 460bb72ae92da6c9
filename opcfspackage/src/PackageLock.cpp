#include <opccore/Exception.h>
#include <opccore/LocalFileSystemOps.h>
#include <opcfspackage/PackageLock.h>

#include <boost/system/error_code.hpp>

#include <algorithm>
#include <cstdint>
#include <string_view>

namespace opc::fspackage {
namespace {

constexpr std::u16string_view kLockPrefix = u".opc-lock-";

// No encoding of a path takes more than three bytes for one UTF-16 code
// unit, so a name of this many units fits in NAME_MAX (255) bytes after the
// prefix.
constexpr std::size_t kMaxNameUnits = (255 - kLockPrefix.size()) / 3;
constexpr std::size_t kFingerprintUnits = 16;

// FNV-1a: stable across processes, builds and machines, which a standard
// hash is not promised to be.
std::uint64_t fingerprint(std::u16string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325u;
    for (const char16_t unit : text) {
        for (const unsigned byte : {unsigned{unit} & 0xffu, unsigned{unit} >> 8}) {
            hash ^= byte;
            hash *= 0x100000001b3u;
        }
    }
    return hash;
}

std::u16string lockFileName(std::u16string_view packageName) {
    std::u16string name;
    name.reserve(kLockPrefix.size() + std::min(packageName.size(), kMaxNameUnits));
    name.append(kLockPrefix);
    if (packageName.size() <= kMaxNameUnits) return name.append(packageName);
    std::size_t kept = kMaxNameUnits - kFingerprintUnits - 1;
    if (packageName[kept - 1] >= 0xd800 && packageName[kept - 1] < 0xdc00) --kept;  // no half of a pair
    name.append(packageName.substr(0, kept)).append(1, u'-');
    const std::uint64_t bits = fingerprint(packageName);
    for (int shift = 60; shift >= 0; shift -= 4) name += u"0123456789abcdef"[(bits >> shift) & 0xf];
    return name;
}

}  // namespace

PackageLock::PackageLock(const std::u16string& packagePath,
                         opc::LockMode lockMode,
                         opc::FileSystemOps& service,
                         std::optional<std::chrono::nanoseconds> timeout)
    : mode(lockMode) {
    acquire(service, packagePath, timeout);
}

PackageLock::PackageLock(const std::u16string& packagePath,
                         opc::LockMode lockMode,
                         std::optional<std::chrono::nanoseconds> timeout)
    : mode(lockMode) {
    opc::LocalFileSystemOps service;
    acquire(service, packagePath, timeout);
}

PackageLock::~PackageLock() = default;

opc::LockMode PackageLock::getMode() const { return mode; }

const std::u16string& PackageLock::getLockPath() const { return lockPath; }

void PackageLock::acquire(opc::FileSystemOps& service,
                          const std::u16string& packagePath,
                          std::optional<std::chrono::nanoseconds> timeout) {
    try {
        const std::u16string root = service.normalizePath(packagePath);
        const std::u16string_view name = std::u16string_view(root).substr(root.find_last_of(u'/') + 1);
        lockPath = service.appendPath(service.getParentPath(root), lockFileName(name));
        lock = service.lockFile(lockPath, mode, timeout);
    } catch (const opc::Exception& e) {
        throw opc::Exception("Could not lock the package: " + e.code().message(), e.code());
    }
    if (!lock) {
        throw opc::Exception("Timed out waiting for the package lock",
                             boost::system::errc::make_error_code(boost::system::errc::timed_out));
    }
}

}  // namespace opc::fspackage
