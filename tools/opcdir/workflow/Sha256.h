#pragma once

#include <cstddef>
#include <string>

#include <nettle/sha2.h>

namespace opcdir {

// A SHA-256 digest taken over bytes given piece by piece, so that a part of
// any size is hashed without being held whole.
class Sha256 {
public:
    Sha256();
    void update(const char* data, std::size_t size);
    // The digest as 64 lowercase hexadecimal digits.
    // REQUIRES: called once, after the last update().
    std::string hex();

private:
    sha256_ctx context{};
};

}  // namespace opcdir
