#include "EntryCompression.h"
#include "OrderedPipeline.h"
#include "support/OpcAssertions.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace opcdir {
namespace {

using opc::test::noise;

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
        {"short random", noise(1000, 2), 6, false},
        {"random", noise(3 << 20, 3), 6, false},
        // The first 128 KiB decide for a large entry.
        {"random head, text tail", noise(128 << 10, 4) + xmlText(1 << 20, 1), 6, false},
        {"text head, random tail", xmlText(128 << 10, 1) + noise(1 << 20, 5), 6, true},
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

TEST(OrderedPipeline, SameResultsWhateverTheJobsLoadsInOrderWithinBudgetAndPassesFailuresOn) {
    std::vector<std::string> entries;
    std::vector<std::uint64_t> sizes;
    for (int i = 0; i < 40; ++i) {
        entries.push_back(i % 7 == 3 ? noise(i == 17 ? 500000 : 300000, static_cast<std::uint32_t>(i))
                                     : xmlText(1000 + 997 * static_cast<std::size_t>(i), i));
        sizes.push_back(entries.back().size());
    }
    const std::int64_t budget = 400000;
    std::vector<std::vector<CompressedEntry>> runs;
    for (const unsigned jobs : {1u, 3u, 8u}) {
        SCOPED_TRACE(std::to_string(jobs) + " jobs");
        std::mutex mutex;
        std::vector<std::size_t> loads;
        // Loaded and not yet asked for: within what the pipeline counts.
        std::int64_t held = 0;
        std::atomic<int> loading{0};
        std::atomic<bool> overlapped{false};
        OrderedPipeline<std::string, CompressedEntry> pipeline(
            sizes,
            [&](std::size_t i) {
                if (++loading > 1) overlapped = true;
                {
                    const std::lock_guard<std::mutex> lock(mutex);
                    loads.push_back(i);
                    held += static_cast<std::int64_t>(sizes[i]);
                    // One entry may exceed the budget only alone.
                    EXPECT_LE(held, std::max(budget, static_cast<std::int64_t>(sizes[i]))) << "entry " << i;
                }
                std::string bytes = entries[i];
                --loading;
                return bytes;
            },
            [](std::string bytes, std::size_t) { return compressEntry(std::move(bytes), 6); }, jobs,
            static_cast<std::uint64_t>(budget));
        runs.emplace_back();
        for (std::size_t i = 0; i < entries.size(); ++i) {
            {
                const std::lock_guard<std::mutex> lock(mutex);
                held -= static_cast<std::int64_t>(sizes[i]);
            }
            runs.back().push_back(pipeline.take(i));
        }
        EXPECT_FALSE(overlapped);
        std::vector<std::size_t> inOrder(entries.size());
        for (std::size_t i = 0; i < inOrder.size(); ++i) inOrder[i] = i;
        EXPECT_EQ(loads, inOrder);
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(runs[0][i].deflated, i % 7 != 3) << "entry " << i;
        for (const auto& run : runs) EXPECT_EQ(run[i].data, runs[0][i].data) << "entry " << i;
    }

    // A failure in loading or computing is the entry's, met when it is taken.
    OrderedPipeline<std::string, std::string> failing(
        {10, 10, 10, 10},
        [](std::size_t i) -> std::string {
            if (i == 1) throw std::runtime_error("cannot read part '/b.xml'");
            return std::to_string(i);
        },
        [](std::string loaded, std::size_t i) -> std::string {
            if (i == 2) throw std::runtime_error("cannot compute entry 2");
            return loaded + "!";
        },
        2, 100);
    EXPECT_EQ(failing.take(0), "0!");
    EXPECT_EQ(opc::test::thrownWhat<std::runtime_error>([&] { failing.take(1); }), "cannot read part '/b.xml'");
    EXPECT_EQ(opc::test::thrownWhat<std::runtime_error>([&] { failing.take(2); }), "cannot compute entry 2");
    EXPECT_EQ(failing.take(3), "3!");
}

}  // namespace
}  // namespace opcdir
