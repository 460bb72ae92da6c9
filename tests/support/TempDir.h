#pragma once

#include <opccore/NameCodec.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

namespace opc::test {

// Test text is written in UTF-8; the library speaks UTF-16.
inline std::u16string fromUtf8(std::string_view text) { return opc::NameCodec::decode(text); }
inline std::string toUtf8(std::u16string_view text) { return opc::NameCodec::encode(text); }

// A fresh folder for one test, removed with everything in it when the test
// ends. Lives under $TMPDIR (or /tmp) so tests never touch the source tree.
class TempDir {
public:
    TempDir() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/opc-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
        root = pattern;
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }

    const std::filesystem::path& path() const { return root; }
    // path() / relative, as UTF-16 for the library.
    std::u16string u16(const std::string& relative = "") const {
        return fromUtf8((relative.empty() ? root : root / relative).native());
    }

private:
    std::filesystem::path root;
};

// Writes content to the file at path, making its folders.
inline void writeFile(const std::filesystem::path& path, std::string_view content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!out) throw std::runtime_error("cannot write " + path.native());
}

// The whole content of the file at path; fails the test when it is missing.
inline std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.is_open()) << "missing file " << path;
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// size pseudo-random bytes, the same for the same seed: a skipped, doubled or
// shifted block shows, and they do not deflate.
inline std::string noise(std::size_t size, std::uint32_t seed = 1) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>((seed = seed * 1664525u + 1013904223u) >> 24);
    return bytes;
}

}  // namespace opc::test
