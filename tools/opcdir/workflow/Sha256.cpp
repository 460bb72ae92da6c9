#include "Sha256.h"

#include <cstdint>

namespace opcdir {

Sha256::Sha256() { sha256_init(&context); }

void Sha256::update(const char* data, std::size_t size) {
    sha256_update(&context, size, reinterpret_cast<const std::uint8_t*>(data));
}

std::string Sha256::hex() {
    std::uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_digest(&context, sizeof digest, digest);
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : digest) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xf];
    }
    return text;
}

}  // namespace opcdir
