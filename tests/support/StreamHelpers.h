#pragma once

#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>

#include <string>
#include <string_view>

namespace opc::test {

// Reads the stream to its end, in pieces of `piece` bytes.
inline std::string readAll(opc::interfaces::IPhysicalInputStream* stream, std::streamsize piece = 4096) {
    std::string content;
    std::string buffer(static_cast<std::size_t>(piece), '\0');
    for (;;) {
        const std::streamsize got = stream->read(buffer.data(), piece);
        content.append(buffer.data(), static_cast<std::size_t>(got));
        if (got < piece) return content;
    }
}

// Writes all of content; returns what write() returned.
inline std::streamsize writeAll(opc::interfaces::IPhysicalOutputStream* stream, std::string_view content) {
    return stream->write(content.data(), static_cast<std::streamsize>(content.size()));
}

}  // namespace opc::test
