#pragma once

#include <opccore/Export.h>

#include <string>
#include <string_view>

namespace opc {

// File names between the UTF-16 of the API and the bytes the kernel keeps.
//
// A Linux file name is any sequence of bytes. Well-formed UTF-8 (RFC 3629: no
// overlong forms, no encoded surrogates, nothing past U+10FFFF) maps to the
// same characters in UTF-16. A byte that is not part of well-formed UTF-8 maps
// to the lone surrogate U+DC80 + (byte - 0x80), which no well-formed UTF-8
// decodes to, and back:
//   "caf\xC3\xA9"  <=> u"caf\u00E9"
//   "caf\xE9"      <=> u"caf\uDCE9"
// So decode() loses nothing: encode(decode(bytes)) == bytes for all bytes.
// The other direction holds for every string decode() can produce; a UTF-16
// string that is not one of them (a lone surrogate outside U+DC80..U+DCFF, a
// high surrogate before an escape, or escapes that spell well-formed UTF-8,
// such as u"\uDCC3\uDCA9") still encodes, but decodes to something else.
//
// U+0000 and "/" are passed through; what they mean in a path is the file
// system's business.
class OPCCORE_EXPORT NameCodec {
public:
    NameCodec() = delete;

    // The bytes of name on disk.
    static std::string encode(std::u16string_view name);

    // The UTF-16 form of the bytes of a name on disk; never fails.
    static std::u16string decode(std::string_view bytes);

    // decode(bytes) appended to out, which grows by at most bytes.size() units.
    static void appendDecoded(std::u16string& out, std::string_view bytes);

    // How name is shown in a message: UTF-8, with every escaped byte written
    // as "\xNN" (two upper-case hex digits) and every other lone surrogate as
    // "\uNNNN", so the result is always well-formed UTF-8:
    //   u"caf\uDCE9\uD800" => "caf\\xE9\\uD800"
    // Not reversible: a name may itself contain "\x".
    static std::string display(std::u16string_view name);

    // True when bytes is well-formed UTF-8 as above, so decode() escapes
    // nothing.
    static bool isUtf8(std::string_view bytes);
};

}  // namespace opc
