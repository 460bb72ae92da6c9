#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace opc::test {

// A fresh folder for one test, removed with everything in it when the test
// ends. Lives under $TMPDIR (or /tmp) so tests never touch the source tree.
class TempDir {
public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::filesystem::path& path() const { return root; }
    // path() / relative, as UTF-16 for the library.
    std::u16string u16(const std::string& relative = "") const;

private:
    std::filesystem::path root;
};

// Writes content to the file at path, making its folders.
void writeFile(const std::filesystem::path& path, std::string_view content);
// The whole content of the file at path; fails the test when it is missing.
std::string readFile(const std::filesystem::path& path);

}  // namespace opc::test
