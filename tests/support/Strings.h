#pragma once

#include <opccore/NameCodec.h>

#include <string>
#include <string_view>

namespace opc::test {

// Test text is written in UTF-8; the library speaks UTF-16.
inline std::u16string fromUtf8(std::string_view text) { return opc::NameCodec::decode(text); }
inline std::string toUtf8(std::u16string_view text) { return opc::NameCodec::encode(text); }

}  // namespace opc::test
