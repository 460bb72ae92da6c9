#include "PartNameGrammar.h"

#include "PartNames.h"

#include <cstdio>

namespace opcdir {
namespace {

bool isUnreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

bool isSegmentCharacter(unsigned char c) {
    static constexpr std::string_view kOthers = "!$&'()*+,;=:@";
    return isUnreserved(c) || kOthers.find(static_cast<char>(c)) != std::string_view::npos;
}

// Length of the UTF-8 sequence at text[i], or 0 when it is not one (overlong
// forms, surrogates and values past U+10FFFF included).
std::size_t utf8Length(std::string_view text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char first = byte(i);
    const std::size_t length = first >= 0xc2 && first <= 0xdf   ? 2
                               : (first >> 4) == 0xe            ? 3
                               : first >= 0xf0 && first <= 0xf4 ? 4
                                                                : 0;
    if (length == 0 || i + length > text.size()) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xc0) != 0x80) return 0;
    }
    const unsigned char second = byte(i + 1);
    if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second >= 0xa0) || (first == 0xf0 && second < 0x90) ||
        (first == 0xf4 && second >= 0x90))
        return 0;
    return length;
}

std::string shown(unsigned char c) {
    char text[8];
    if (c < 0x20 || c >= 0x7f)
        std::snprintf(text, sizeof text, "\\x%02x", c);
    else
        std::snprintf(text, sizeof text, "%c", c);
    return text;
}

std::string segmentProblem(std::string_view segment) {
    if (segment.empty()) return "empty segment";
    for (std::size_t i = 0; i < segment.size();) {
        const auto c = static_cast<unsigned char>(segment[i]);
        if (c == '%') {
            if (i + 2 >= segment.size() || hexDigitValue(segment[i + 1]) < 0 || hexDigitValue(segment[i + 2]) < 0)
                return "'%' not followed by two hexadecimal digits";
            const auto decoded =
                static_cast<unsigned char>(hexDigitValue(segment[i + 1]) * 16 + hexDigitValue(segment[i + 2]));
            const std::string encoding(segment.substr(i, 3));
            if (decoded == '/' || decoded == '\\')
                return "percent-encoded '" + shown(decoded) + "' ('" + encoding + "')";
            if (isUnreserved(decoded)) return "percent-encoded unreserved character '" + encoding + "'";
            i += 3;
        } else if (c >= 0x80) {
            const std::size_t length = utf8Length(segment, i);
            if (length == 0) return "byte " + shown(c) + " that is not UTF-8";
            i += length;
        } else if (isSegmentCharacter(c)) {
            ++i;
        } else {
            return "character '" + shown(c) + "' not allowed";
        }
    }
    if (segment.back() == '.') return "segment ending in '.'";
    return {};
}

}  // namespace

std::string partNameGrammarProblem(std::string_view partName) {
    if (partName.empty() || partName.front() != '/') return "does not begin with '/'";
    std::size_t start = 1;
    for (;;) {
        const std::size_t end = partName.find('/', start);
        const std::string_view segment = partName.substr(start, end == std::string_view::npos ? end : end - start);
        if (std::string problem = segmentProblem(segment); !problem.empty()) return problem;
        if (end == std::string_view::npos) return {};
        start = end + 1;
    }
}

}  // namespace opcdir
