#include "NewParentFolders.h"

#include "Errors.h"
#include "PartNames.h"
#include "Session.h"

#include <opccore/Exception.h>

#include <boost/system/error_code.hpp>

namespace opcdir {

NewParentFolders::NewParentFolders(opc::FileSystemOps& fileSystem, const std::string& packageName)
    : service(fileSystem), name(packageName) {
    try {
        std::u16string folder = service.normalizePath(toUtf16(packageName));
        for (std::u16string parent = service.getParentPath(folder);
             !parent.empty() && parent != folder && !service.exists(parent); parent = service.getParentPath(folder)) {
            missing.push_back(parent);
            folder = parent;
        }
    } catch (const opc::Exception& e) {
        throw Failure(packageName, libraryCause(e));
    }
}

NewParentFolders::~NewParentFolders() {
    if (kept) return;
    for (const std::u16string& folder : missing) {
        try {
            std::vector<std::u16string> files;
            service.getFiles(folder, files, true);
            boost::system::error_code code;
            if (!lockFile.empty() && files == std::vector<std::u16string>{lockFile}) {
                service.removeAll(lockFile, code);
                if (code) return;
                files.clear();
            }
            if (!files.empty()) return;
            service.removeAll(folder, code);
        } catch (const opc::Exception&) {
            return;
        }
    }
}

void NewParentFolders::make(Io& io) {
    if (!missing.empty()) {
        try {
            service.createFolders(missing.front());
        } catch (const opc::Exception& e) {
            throw Failure(name, libraryCause(e));
        }
    }
    if (io.lockCreatedPackage) lockFile = io.lockCreatedPackage();
}

}  // namespace opcdir
