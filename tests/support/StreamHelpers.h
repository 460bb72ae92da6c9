#pragma once

#include <opccore/interfaces/IPhysicalInputStream.h>
#include <opccore/interfaces/IPhysicalOutputStream.h>
#include <opccore/interfaces/IPhysicalPackage.h>
#include <opccore/interfaces/IPhysicalPart.h>

#include "support/TempDir.h"

#include <stdexcept>
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

// The registered part of this name; throws when there is none.
inline opc::interfaces::IPhysicalPart* partNamed(opc::interfaces::IPhysicalPackage& package,
                                                 const std::u16string& name) {
    for (opc::interfaces::IPhysicalPart* part : package.getParts()) {
        if (part->getName() == name) return part;
    }
    throw std::runtime_error("no part named " + toUtf8(name));
}

}  // namespace opc::test
