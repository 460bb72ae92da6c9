#include "support/RawZip.h"

#include "support/TempDir.h"

#include <zip.h>
#include <zlib.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <vector>

#ifndef OPC_TEST_DATA_DIR
#error "OPC_TEST_DATA_DIR must name the test data folder"
#endif

namespace opc::test {

std::string littleEndian(std::uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xff);
    return out;
}

namespace {

constexpr auto le = &littleEndian;

std::string rawDeflate(const std::string& content) {
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("deflateInit2 failed");
    std::string out(deflateBound(&stream, content.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(content.data()));
    stream.avail_in = static_cast<uInt>(content.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    out.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) throw std::runtime_error("deflate failed");
    return out;
}

// Version 2.0 to extract, no flags, dated 1980-01-01: the fields both
// headers share.
std::string sharedFields(const RawZip::Entry& entry) {
    const std::uint64_t compressed = entry.compressedSize.value_or(entry.data.size());
    return le(20, 2) + le(0, 2) + le(entry.method, 2) + le(0, 2) + le(0x21, 2) + le(entry.crc, 4) + le(compressed, 4) +
           le(entry.size, 4) + le(entry.name.size(), 2) + le(0, 2);
}

std::uint32_t crc32Of(const std::string& bytes) {
    return static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

}  // namespace

RawZip::Entry& RawZip::stored(std::string name, const std::string& content) {
    return entries.emplace_back(Entry{std::move(name), content, 0, crc32Of(content),
                                      static_cast<std::uint32_t>(content.size()), std::nullopt, std::nullopt});
}

RawZip::Entry& RawZip::deflated(std::string name, const std::string& content) {
    return entries.emplace_back(Entry{std::move(name), rawDeflate(content), 8, crc32Of(content),
                                      static_cast<std::uint32_t>(content.size()), std::nullopt, std::nullopt});
}

RawZip::Entry& RawZip::alias(std::string name, std::size_t target) {
    Entry entry = entries.at(target);
    entry.name = std::move(name);
    entry.sharedWith = target;
    return entries.emplace_back(std::move(entry));
}

std::string RawZip::bytes() const {
    std::string body;
    std::vector<std::uint64_t> offsets;
    for (const Entry& entry : entries) {
        if (entry.sharedWith) {
            offsets.push_back(offsets.at(*entry.sharedWith));
            continue;
        }
        offsets.push_back(body.size());
        body += "PK\3\4" + sharedFields(entry) + entry.name + entry.data;
    }
    std::string directory;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        directory += "PK\1\2" + le(20, 2) + sharedFields(entries[i]) + le(0, 2) + le(0, 2) + le(0, 2) + le(0, 4) +
                     le(offsets[i], 4) + entries[i].name;
    }
    return body + directory + "PK\5\6" + le(0, 4) + le(entries.size(), 2) + le(entries.size(), 2) +
           le(directory.size(), 4) + le(body.size(), 4) + le(0, 2);
}

void RawZip::write(const std::filesystem::path& path) const { writeFile(path, bytes()); }

std::size_t RawZip::centralDirectorySize() const {
    std::size_t size = 0;
    for (const Entry& entry : entries) size += 46 + entry.name.size();
    return size;
}

ZipEntries readZipEntries(const std::filesystem::path& archive, bool compressed) {
    int error = 0;
    std::unique_ptr<zip_t, decltype(&zip_discard)> zip(zip_open(archive.c_str(), ZIP_RDONLY, &error), &zip_discard);
    if (!zip) throw std::runtime_error("cannot open ZIP " + archive.native());
    ZipEntries entries;
    const zip_int64_t count = zip_get_num_entries(zip.get(), 0);
    for (zip_int64_t i = 0; i < count; ++i) {
        zip_stat_t stat;
        if (zip_stat_index(zip.get(), static_cast<zip_uint64_t>(i), 0, &stat) != 0) {
            throw std::runtime_error("cannot stat entry of " + archive.native());
        }
        std::string name = stat.name;
        if (!name.empty() && name.back() == '/') continue;
        std::unique_ptr<zip_file_t, decltype(&zip_fclose)> file(
            zip_fopen_index(zip.get(), static_cast<zip_uint64_t>(i), compressed ? ZIP_FL_COMPRESSED : 0), &zip_fclose);
        if (!file) throw std::runtime_error("cannot open entry " + name + " of " + archive.native());
        std::string bytes(compressed ? stat.comp_size : stat.size, '\0');
        if (zip_fread(file.get(), bytes.data(), bytes.size()) != static_cast<zip_int64_t>(bytes.size())) {
            throw std::runtime_error("cannot read entry " + name + " of " + archive.native());
        }
        entries.emplace_back(std::move(name), std::move(bytes));
    }
    return entries;
}

void unzipToFolder(const std::filesystem::path& archive, const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder);
    for (const auto& [name, bytes] : readZipEntries(archive)) writeFile(folder / name, bytes);
}

std::filesystem::path testDataDir() { return OPC_TEST_DATA_DIR; }

std::vector<std::filesystem::path> corpusPackages() {
    std::vector<std::filesystem::path> packages;
    for (const auto& entry : std::filesystem::directory_iterator(testDataDir() / "corpus")) {
        if (entry.is_regular_file() && entry.path().filename() != "SOURCES.txt") packages.push_back(entry.path());
    }
    std::sort(packages.begin(), packages.end());
    return packages;
}

}  // namespace opc::test
