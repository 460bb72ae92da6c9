#pragma once

#include <cstdint>
#include <deque>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace opc::test {

// value in `bytes` bytes, least significant first, as ZIP fields are written.
std::string littleEndian(std::uint64_t value, int bytes);

// A ZIP archive written byte by byte, so that a test can make what no ZIP
// library would: any bytes in a name, sizes and checksums that lie, entries
// that share or overlap compressed data, thousands of deep names. Entries
// are made true in every field; a test then edits the fields it wants to lie.
class RawZip {
public:
    struct Entry {
        std::string name;
        std::string data;                             // the bytes after the local header: stored or deflated
        std::uint16_t method = 0;                     // 0 stored, 8 deflated
        std::uint32_t crc = 0;                        // as both headers declare it
        std::uint32_t size = 0;                       // inflated size, as both headers declare it
        std::optional<std::uint32_t> compressedSize;  // declared; by default data.size()
        std::optional<std::size_t> sharedWith;        // no data of its own: this entry's header and data
    };

    Entry& stored(std::string name, const std::string& content);
    Entry& deflated(std::string name, const std::string& content);
    // An entry in the central directory only, pointing at the local header and
    // data of entry number target.
    Entry& alias(std::string name, std::size_t target);

    // Local headers and data in entry order, the central directory, its end.
    std::string bytes() const;
    void write(const std::filesystem::path& path) const;

    // The size of the central directory bytes() writes.
    std::size_t centralDirectorySize() const;

private:
    std::deque<Entry> entries;  // references stay valid as entries are added
};

// A ZIP archive's entries, in archive order: name and bytes (as stored, when
// compressed). Folder entries (names ending in "/") are left out. Throws
// std::runtime_error for an archive that cannot be read.
using ZipEntries = std::vector<std::pair<std::string, std::string>>;
ZipEntries readZipEntries(const std::filesystem::path& archive, bool compressed = false);

// Writes every file entry of archive below folder (made if missing), as a test
// fixture: a folder package made from a ZIP package.
void unzipToFolder(const std::filesystem::path& archive, const std::filesystem::path& folder);

// The folder that holds the test data (tests/data).
std::filesystem::path testDataDir();

// The valid packages of the corpus (tests/data/corpus/*, not malformed/).
std::vector<std::filesystem::path> corpusPackages();

}  // namespace opc::test
