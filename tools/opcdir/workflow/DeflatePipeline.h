#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

struct zip;
struct zip_source;

namespace opcdir {

// One entry as it goes into the archive: deflated, or stored when deflating
// does not make it smaller.
struct CompressedEntry {
    bool deflated = false;
    std::uint32_t crc = 0;   // of the uncompressed bytes
    std::uint64_t size = 0;  // uncompressed
    std::string data;        // raw deflate stream, or the bytes themselves
};

// Deflates one entry's bytes at level (0 stores, 1 to 9 deflate). The result
// depends on the bytes and the level only. An entry whose first 128 KiB do
// not shrink by 2% is taken for already compressed and stored without
// deflating the rest.
CompressedEntry compressEntry(std::string bytes, int level);

// Entries compressed on worker threads, ahead of the one consumer that takes
// them in order. The entries' bytes are loaded one at a time (the loader is
// never called by two threads at once, so it may use a package that admits
// one thread only); what is loaded and not yet taken stays within `bytes`,
// except that one entry larger than that is still loaded alone.
class DeflatePipeline {
public:
    // entrySizes[i] is the size of entry i, as loader(i) will return it.
    DeflatePipeline(std::vector<std::uint64_t> entrySizes,
                    std::function<std::string(std::size_t)> loader,
                    int deflateLevel,
                    unsigned jobs,
                    std::uint64_t bytes);
    // Stops the workers; entries not taken are dropped.
    ~DeflatePipeline();
    DeflatePipeline(const DeflatePipeline&) = delete;
    DeflatePipeline& operator=(const DeflatePipeline&) = delete;

    // Entry index, once compressed. Rethrows what load threw for it.
    // REQUIRES: indexes are taken in order, each once.
    CompressedEntry take(std::size_t index);

private:
    void work();

    std::vector<std::uint64_t> sizes;
    std::function<std::string(std::size_t)> load;
    int level;
    std::uint64_t budget;

    std::mutex mutex;
    std::condition_variable changed;
    std::mutex loading;
    std::vector<std::optional<CompressedEntry>> done;
    std::vector<std::exception_ptr> failures;
    std::size_t next = 0;    // the next entry a worker claims
    std::uint64_t held = 0;  // bytes claimed and not yet taken
    bool stopping = false;
    std::vector<std::thread> workers;
};

// A libzip source that hands an entry to the archive as it is, with its
// method, sizes and checksum, so that libzip copies it without compressing
// again. produce() is called when libzip first asks for the entry, and its
// bytes are dropped once libzip has read them, so that only the entry being
// written is held. The caller sets the entry's compression to the method
// produce() will choose. What produce() throws fails the archive, its message
// kept in *firstError unless one is there. Returns null on failure, with the
// archive's error set.
zip_source* compressedSource(zip* archive, std::function<CompressedEntry()> produce, std::string* firstError);

}  // namespace opcdir
