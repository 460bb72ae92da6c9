#include "support/ZipFixture.h"

#include "support/TempDir.h"

#include <zip.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#ifndef OPC_TEST_DATA_DIR
#error "OPC_TEST_DATA_DIR must name the test data folder"
#endif

namespace opc::test {

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
