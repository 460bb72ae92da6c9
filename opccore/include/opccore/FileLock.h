#pragma once

#include <opccore/Export.h>

namespace opc {

// A lock on a file, as FileSystemOps::lockFile grants it. Destroying the
// object releases the lock; the file stays where it is.
//
// The object needs nothing else to live: it may outlive the service that
// granted it. Not copyable.
class OPCCORE_EXPORT FileLock {
public:
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    virtual ~FileLock();

protected:
    FileLock() = default;
};

}  // namespace opc
