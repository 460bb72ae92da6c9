// The content-types reader over any bytes: it reads what it can and never
// fails, so every input must come back without a crash, leak or hang.
#include "ContentTypes.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view xml(reinterpret_cast<const char*>(data), size);
    const opcdir::ContentTypes types = opcdir::ContentTypes::parse(xml);
    // Lookups fold case and decode percent escapes of the part name: part of
    // the input serves as one, so that those paths are fuzzed too.
    for (const std::string_view name : {"/word/document.xml", "/_rels/.rels", "/%5BA%5d.XML", "/"}) types.lookup(name);
    types.lookup(xml.substr(0, 256));
    return 0;
}
