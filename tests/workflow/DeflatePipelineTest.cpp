#include "DeflatePipeline.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

namespace opcdir {
namespace {

std::string randomBytes(std::size_t size, std::uint32_t seed) {
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>((seed = seed * 1664525u + 1013904223u) >> 24);
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
    const std::vector<std::tuple<std::string, std::string, int, bool>> cases = {
        // What, the bytes, the level, whether deflated.
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
    for (const auto& [what, bytes, level, deflated] : cases) {
        SCOPED_TRACE(what);
        const CompressedEntry entry = compressEntry(bytes, level);
        EXPECT_EQ(entry.deflated, deflated);
        EXPECT_EQ(entry.size, bytes.size());
        EXPECT_EQ(entry.crc, crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
        EXPECT_EQ(entry.deflated ? inflateRaw(entry.data, bytes.size()) : entry.data, bytes);
        if (entry.deflated) {
            EXPECT_LT(entry.data.size(), bytes.size());
        }
    }
    EXPECT_LT(compressEntry(xmlText(300000, 1), 9).data.size(), compressEntry(xmlText(300000, 1), 1).data.size());
}

TEST(DeflatePipeline, SameEntriesWhateverTheJobsLoadsOneAtATimeAndPassesFailuresOn) {
    std::vector<std::string> entries;
    std::vector<std::uint64_t> sizes;
    for (int i = 0; i < 40; ++i) {
        entries.push_back(i % 7 == 3 ? randomBytes(300000, static_cast<std::uint32_t>(i))
                                     : xmlText(1000 + 997 * static_cast<std::size_t>(i), i));
        sizes.push_back(entries.back().size());
    }
    std::vector<std::vector<CompressedEntry>> runs;
    for (const unsigned jobs : {1u, 3u, 8u}) {
        std::atomic<int> loading{0};
        std::atomic<bool> overlapped{false};
        DeflatePipeline pipeline(
            sizes,
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
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(runs[0][i].deflated, i % 7 != 3) << "entry " << i;
        for (const auto& run : runs) EXPECT_EQ(run[i].data, runs[0][i].data) << "entry " << i;
    }

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

}  // namespace
}  // namespace opcdir
