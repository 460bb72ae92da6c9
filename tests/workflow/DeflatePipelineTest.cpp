#include "DeflatePipeline.h"

#include "support/TempDir.h"
#include "support/ZipFixture.h"

#include <gtest/gtest.h>
#include <zip.h>
#include <zlib.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

namespace opcdir {
namespace {

std::string randomBytes(std::size_t size, std::uint32_t seed) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        seed = seed * 1664525u + 1013904223u;
        byte = static_cast<char>(seed >> 24);
    }
    return bytes;
}

std::string xmlText(std::size_t size, int seed) {
    std::string text;
    while (text.size() < size) text += "<w:p><w:r><w:t>line " + std::to_string(seed++ % 97) + "</w:t></w:r></w:p>\n";
    return text.substr(0, size);
}

std::string inflateRaw(const std::string& data, std::size_t size) {
    std::string out(size, '\0');
    z_stream stream{};
    inflateInit2(&stream, -15);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
    stream.avail_in = static_cast<uInt>(data.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int status = inflate(&stream, Z_FINISH);
    inflateEnd(&stream);
    return status == Z_STREAM_END && stream.total_out == size ? out : "inflate failed";
}

TEST(CompressEntry, DeflatesWhatShrinksAndStoresTheRest) {
    struct Case {
        std::string what;
        std::string bytes;
        int level;
        bool deflated;
    };
    const std::vector<Case> cases = {
        {"empty", "", 6, false},
        {"text at level 0", xmlText(50000, 1), 0, false},
        {"text at level 1", xmlText(50000, 1), 1, true},
        {"text at level 9", xmlText(300000, 1), 9, true},
        {"short random", randomBytes(1000, 2), 6, false},
        {"random", randomBytes(3 << 20, 3), 6, false},
        // The first 128 KiB decide for a large entry.
        {"random head, text tail", randomBytes(128 << 10, 4) + xmlText(1 << 20, 1), 6, false},
        {"text head, random tail", xmlText(128 << 10, 1) + randomBytes(1 << 20, 5), 6, true},
    };
    for (const Case& c : cases) {
        const CompressedEntry entry = compressEntry(c.bytes, c.level);
        EXPECT_EQ(entry.deflated, c.deflated) << c.what;
        EXPECT_EQ(entry.size, c.bytes.size()) << c.what;
        EXPECT_EQ(entry.crc,
                  crc32(0, reinterpret_cast<const Bytef*>(c.bytes.data()), static_cast<uInt>(c.bytes.size())))
            << c.what;
        EXPECT_EQ(entry.deflated ? inflateRaw(entry.data, c.bytes.size()) : entry.data, c.bytes) << c.what;
        if (entry.deflated) {
            EXPECT_LT(entry.data.size(), c.bytes.size()) << c.what;
        }
    }
    EXPECT_LT(compressEntry(xmlText(300000, 1), 9).data.size(), compressEntry(xmlText(300000, 1), 1).data.size());
}

std::vector<std::string> sampleEntries() {
    std::vector<std::string> entries;
    for (int i = 0; i < 40; ++i)
        entries.push_back(i % 7 == 3 ? randomBytes(300000, static_cast<std::uint32_t>(i))
                                     : xmlText(1000 + 997 * static_cast<std::size_t>(i), i));
    return entries;
}

std::vector<std::uint64_t> sizesOf(const std::vector<std::string>& entries) {
    std::vector<std::uint64_t> sizes;
    for (const std::string& entry : entries) sizes.push_back(entry.size());
    return sizes;
}

TEST(DeflatePipeline, SameEntriesWhateverTheJobsLoadsOneAtATimeAndPassesFailuresOn) {
    const std::vector<std::string> entries = sampleEntries();
    std::vector<std::vector<CompressedEntry>> runs;
    for (const unsigned jobs : {1u, 3u, 8u}) {
        std::atomic<int> loading{0};
        std::atomic<bool> overlapped{false};
        DeflatePipeline pipeline(
            sizesOf(entries),
            [&](std::size_t i) {
                if (++loading > 1) overlapped = true;
                std::string bytes = entries[i];
                --loading;
                return bytes;
            },
            6, jobs, 400000);
        runs.emplace_back();
        for (std::size_t i = 0; i < entries.size(); ++i) runs.back().push_back(pipeline.take(i));
        EXPECT_FALSE(overlapped) << jobs << " jobs";
    }
    for (std::size_t run = 1; run < runs.size(); ++run) {
        for (std::size_t i = 0; i < entries.size(); ++i) {
            EXPECT_EQ(runs[run][i].data, runs[0][i].data) << "entry " << i;
            EXPECT_EQ(runs[run][i].deflated, runs[0][i].deflated) << "entry " << i;
        }
    }
    EXPECT_FALSE(runs[0][3].deflated);
    EXPECT_TRUE(runs[0][4].deflated);

    DeflatePipeline failing(
        {10, 10, 10},
        [](std::size_t i) -> std::string {
            if (i == 1) throw std::runtime_error("cannot read part '/b.xml'");
            return "0123456789";
        },
        6, 2, 100);
    EXPECT_EQ(failing.take(0).data, "0123456789");
    try {
        failing.take(1);
        ADD_FAILURE() << "no failure";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "cannot read part '/b.xml'");
    }
}

// libzip copies what the source hands it: the archive holds our deflate
// stream byte for byte, and reads back as the original entries.
TEST(CompressedSource, LibzipWritesTheEntriesWithoutCompressingAgain) {
    opc::test::TempDir dir;
    const std::vector<std::string> entries = sampleEntries();
    const std::string path = (dir.path() / "out.zip").string();
    std::string firstError;
    {
        DeflatePipeline pipeline(
            sizesOf(entries), [&](std::size_t i) { return entries[i]; }, 6, 2, 1 << 20);
        std::vector<CompressedEntry> expected;
        for (std::size_t i = 0; i < entries.size(); ++i) expected.push_back(compressEntry(entries[i], 6));
        int error = 0;
        zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_EXCL, &error);
        ASSERT_NE(archive, nullptr);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            zip_source_t* source = compressedSource(
                archive, [&pipeline, i] { return pipeline.take(i); }, &firstError);
            const zip_int64_t index = zip_file_add(archive, ("e" + std::to_string(i)).c_str(), source, 0);
            ASSERT_EQ(index, static_cast<zip_int64_t>(i));
            zip_set_file_compression(archive, i, expected[i].deflated ? ZIP_CM_DEFLATE : ZIP_CM_STORE, 0);
        }
        ASSERT_EQ(zip_close(archive), 0) << firstError;
        zip_t* written = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
        ASSERT_NE(written, nullptr);
        for (std::size_t i = 0; i < entries.size(); ++i) {
            zip_stat_t stat;
            ASSERT_EQ(zip_stat_index(written, i, 0, &stat), 0);
            EXPECT_EQ(stat.comp_method, expected[i].deflated ? ZIP_CM_DEFLATE : ZIP_CM_STORE) << i;
            EXPECT_EQ(stat.comp_size, expected[i].data.size()) << i;
        }
        zip_discard(written);
    }
    const opc::test::ZipEntries read = opc::test::readZipEntries(dir.path() / "out.zip");
    ASSERT_EQ(read.size(), entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) EXPECT_EQ(read[i].second, entries[i]) << i;
    EXPECT_EQ(firstError, "");
}

}  // namespace
}  // namespace opcdir
