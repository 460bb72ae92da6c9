#include <opccore/Exception.h>
#include <opcfspackage/FileSystemOutputStream.h>

namespace opc::fspackage {

FileSystemOutputStream::FileSystemOutputStream(opc::FileSystemOps& service, const std::u16string& filePath)
    : FileSystemStream<std::ostream>(service, filePath) {
    boost::system::error_code errorCode;
    stream = fileSystemOps.createOutputStream(path, std::ios_base::out | std::ios_base::binary, errorCode);
    if (errorCode.failed()) {
        throw opc::Exception("Failed to create or open file system output stream", boost::system::error_code());
    }
}

std::streamsize FileSystemOutputStream::write(const char* buffer, std::streamsize count) {
    if (isStreamUnusable()) return 0;
    stream->write(buffer, count);
    return count;
}

bool FileSystemOutputStream::isFailed() { return isStreamUnusable(); }

void FileSystemOutputStream::flush() {
    if (isStreamOpen()) stream->flush();
}

void FileSystemOutputStream::close() { stream.reset(); }

FileSystemOutputStream::~FileSystemOutputStream() { FileSystemOutputStream::close(); }

}  // namespace opc::fspackage
