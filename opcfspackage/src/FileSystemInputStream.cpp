#include <opccore/Exception.h>
#include <opcfspackage/FileSystemInputStream.h>

namespace opc::fspackage {

FileSystemInputStream::FileSystemInputStream(opc::FileSystemOps& service, const std::u16string& filePath)
    : FileSystemStream<std::istream>(service, filePath) {
    FileSystemInputStream::open();
}

void FileSystemInputStream::open() {
    if (isStreamOpen()) return;
    boost::system::error_code errorCode;
    // Whatever the service returns is kept, also on failure.
    stream = fileSystemOps.createInputStream(path, std::ios_base::in | std::ios_base::binary, errorCode);
    if (errorCode.failed()) {
        throw opc::Exception("Failed to create or open file system input stream", boost::system::error_code());
    }
}

std::streamsize FileSystemInputStream::read(char* buffer, std::streamsize count) {
    if (isStreamUnusable()) return 0;
    stream->read(buffer, count);
    return stream->gcount();
}

bool FileSystemInputStream::isAtEnd() { return isStreamUnusable(); }

void FileSystemInputStream::close() { stream.reset(); }

FileSystemInputStream::~FileSystemInputStream() { FileSystemInputStream::close(); }

}  // namespace opc::fspackage
