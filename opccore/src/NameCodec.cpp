#include <opccore/NameCodec.h>

#include <algorithm>
#include <cstddef>

namespace opc {
namespace {

constexpr char16_t kEscapeBase = 0xDC00;  // byte b >= 0x80 that is not UTF-8 <=> U+DC00 + b

bool isHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool isLowSurrogate(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }
bool isEscape(char16_t unit) { return unit >= kEscapeBase + 0x80 && unit <= kEscapeBase + 0xFF; }
bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The length of the well-formed UTF-8 sequence at bytes[i], or 0 when there
// is none. The second byte's range is what excludes overlong forms,
// surrogates and values past U+10FFFF.
std::size_t sequenceLength(std::string_view bytes, std::size_t i) {
    const auto at = [&](std::size_t k) { return static_cast<unsigned char>(bytes[i + k]); };
    const unsigned char lead = at(0);
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (bytes.size() - i < length || at(1) < low || at(1) > high) return 0;
    for (std::size_t k = 2; k < length; ++k) {
        if (!isContinuation(at(k))) return 0;
    }
    return length;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

void appendHex(std::string& out, const char* prefix, unsigned value, int digits) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    out += prefix;
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) out.push_back(kHex[(value >> shift) & 0xF]);
}

// The two outputs differ only in what a unit that is no character becomes.
template <bool forDisplay>
std::string encodeAs(std::u16string_view name) {
    std::string out;
    out.reserve(name.size());
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char16_t unit = name[i];
        if (unit < 0x80) {  // nearly every unit of a path: tested first
            out.push_back(static_cast<char>(unit));
        } else if (isHighSurrogate(unit) && i + 1 < name.size() && isLowSurrogate(name[i + 1])) {
            appendUtf8(out, 0x10000 + ((char32_t{unit} - 0xD800) << 10) + (name[i + 1] - 0xDC00));
            ++i;
        } else if (isEscape(unit)) {
            const unsigned byte = unit - kEscapeBase;
            if (forDisplay) {
                appendHex(out, "\\x", byte, 2);
            } else {
                out.push_back(static_cast<char>(byte));
            }
        } else if (forDisplay && (isHighSurrogate(unit) || isLowSurrogate(unit))) {
            appendHex(out, "\\u", unit, 4);
        } else {
            // A lone surrogate on disk takes its three-byte form; no name read
            // from disk decodes to one, so nothing read is lost.
            appendUtf8(out, unit);
        }
    }
    return out;
}

}  // namespace

std::string NameCodec::encode(std::u16string_view name) { return encodeAs<false>(name); }

std::string NameCodec::display(std::u16string_view name) { return encodeAs<true>(name); }

std::u16string NameCodec::decode(std::string_view bytes) {
    std::u16string out;
    out.reserve(bytes.size());
    appendDecoded(out, bytes);
    return out;
}

void NameCodec::appendDecoded(std::u16string& out, std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size();) {
        // A run of ASCII is widened at once: most names hold nothing else.
        std::size_t end = i;
        while (end < bytes.size() && static_cast<unsigned char>(bytes[end]) < 0x80) ++end;
        if (end > i) {
            const std::size_t at = out.size();
            out.resize(at + (end - i));
            std::transform(bytes.begin() + static_cast<std::ptrdiff_t>(i),
                           bytes.begin() + static_cast<std::ptrdiff_t>(end),
                           out.begin() + static_cast<std::ptrdiff_t>(at),
                           [](char c) { return static_cast<char16_t>(static_cast<unsigned char>(c)); });
            i = end;
            continue;
        }
        const auto lead = static_cast<unsigned char>(bytes[i]);
        const std::size_t length = sequenceLength(bytes, i);
        if (length == 0) {
            out.push_back(static_cast<char16_t>(kEscapeBase + lead));
            ++i;
            continue;
        }
        char32_t cp = lead & (0xFF >> (length + 1));
        for (std::size_t k = 1; k < length; ++k) cp = (cp << 6) | (static_cast<unsigned char>(bytes[i + k]) & 0x3F);
        if (cp >= 0x10000) {
            out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += length;
    }
}

bool NameCodec::isUtf8(std::string_view bytes) {
    for (std::size_t i = 0; i < bytes.size();) {
        if (static_cast<unsigned char>(bytes[i]) < 0x80) {
            ++i;
        } else if (const std::size_t length = sequenceLength(bytes, i)) {
            i += length;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace opc
