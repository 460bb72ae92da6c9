#pragma once

#include <opccore/FileSystemOps.h>

#include <boost/core/noncopyable.hpp>

#include <ios>
#include <memory>
#include <string>

namespace opc::fspackage {

// What the two part streams share: the service that opens the file, the
// file's path and the open standard stream. The stream is open while `stream`
// is not empty; it is good while its rdstate() is goodbit. Releasing `stream`
// closes the file once no other holder remains.
template <class StandardStream>
class FileSystemStream : private boost::noncopyable {
public:
    FileSystemStream(opc::FileSystemOps& service, const std::u16string& filePath)
        : fileSystemOps(service), path(filePath) {}

    // True when the stream is open and its badbit is set: a stream that can
    // no longer be trusted, unlike one that only reached the end of its file.
    bool isStreamBad() const { return isStreamOpen() && (stream->rdstate() & std::ios_base::badbit) != 0; }

protected:
    bool isStreamOpen() const { return stream != nullptr; }
    bool isStreamGood() const { return stream->rdstate() == std::ios_base::goodbit; }
    // True when not open or not good: what isAtEnd() and isFailed() report.
    bool isStreamUnusable() const { return !isStreamOpen() || !isStreamGood(); }

    opc::FileSystemOps& fileSystemOps;
    const std::u16string path;
    std::shared_ptr<StandardStream> stream;
};

}  // namespace opc::fspackage
