#include "EntryCompression.h"

#include "ZipSource.h"

#include <libdeflate.h>
#include <zip.h>
#include <zlib.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>

namespace opcdir {
namespace {

constexpr std::size_t kProbe = std::size_t{128} * 1024;

// libdeflate checksums in a third of zlib's time and inflates in half, with
// the same results for data that is sound.
std::uint32_t crcOf(const char* bytes, std::size_t size) { return libdeflate_crc32(0, bytes, size); }

// One inflater a thread, made on its first entry: it is some 10 KiB of tables.
libdeflate_decompressor* inflater() {
    thread_local const std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> made(
        libdeflate_alloc_decompressor(), &libdeflate_free_decompressor);
    return made.get();
}

// The raw deflate stream (no zlib header, as ZIP wants it) of input, with
// the window and memory level zip itself uses.
std::string deflateRaw(const char* input, std::size_t size, int level) {
    z_stream stream{};
    if (deflateInit2(&stream, level, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        throw std::runtime_error("cannot start deflate");
    std::unique_ptr<z_stream, int (*)(z_stream*)> end(&stream, &deflateEnd);
    std::string output(deflateBound(&stream, static_cast<uLong>(size)), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input));
    stream.avail_in = static_cast<uInt>(size);
    stream.next_out = reinterpret_cast<Bytef*>(output.data());
    stream.avail_out = static_cast<uInt>(output.size());
    if (deflate(&stream, Z_FINISH) != Z_STREAM_END) throw std::runtime_error("deflate did not finish");
    output.resize(stream.total_out);
    return output;
}

}  // namespace

CompressedEntry compressEntry(std::string bytes, int level) {
    CompressedEntry entry;
    entry.size = bytes.size();
    entry.crc = crcOf(bytes.data(), bytes.size());
    // deflate takes 32-bit counts; larger entries are the streaming writer's.
    const bool worthTrying = level > 0 && !bytes.empty() && bytes.size() < (std::uint64_t{1} << 31);
    if (worthTrying && bytes.size() > kProbe) {
        const std::string probe = deflateRaw(bytes.data(), kProbe, level);
        if (probe.size() * 50 > kProbe * 49) {
            entry.data = std::move(bytes);
            return entry;
        }
    }
    if (worthTrying) {
        std::string deflated = deflateRaw(bytes.data(), bytes.size(), level);
        if (deflated.size() < bytes.size()) {
            entry.deflated = true;
            entry.data = std::move(deflated);
            return entry;
        }
    }
    entry.data = std::move(bytes);
    return entry;
}

bool inflateEntry(
    const char* data, std::size_t dataSize, bool deflated, std::uint64_t size, std::uint32_t crc, char* out) {
    if (!deflated) return dataSize == size && crcOf(data, dataSize) == crc;
    libdeflate_decompressor* const decompressor = inflater();
    if (decompressor == nullptr) return false;
    std::size_t read = 0;
    std::size_t written = 0;
    // One byte more than declared shows an entry that inflates past it.
    return libdeflate_deflate_decompress_ex(decompressor, data, dataSize, out, size + 1, &read, &written) ==
               LIBDEFLATE_SUCCESS &&
           read == dataSize && written == size && crcOf(out, size) == crc;
}

// ---- The libzip source ---------------------------------------------------------

namespace {

struct SourceState {
    std::function<CompressedEntry()> produce;
    std::string* firstError = nullptr;
    std::optional<CompressedEntry> entry;  // kept for its sizes once its bytes are dropped
    std::uint64_t compressedSize = 0;
    std::size_t position = 0;
    zip_error_t error{};

    zip_int64_t fail(const char* what) {
        if (firstError->empty()) *firstError = what;
        zip_error_set(&error, ZIP_ER_READ, 0);
        return -1;
    }

    zip_int64_t call(void* data, zip_uint64_t length, zip_source_cmd_t command) {
        switch (command) {
            case ZIP_SOURCE_OPEN: position = 0; return 0;
            case ZIP_SOURCE_READ: {
                const std::size_t count =
                    std::min<std::size_t>(static_cast<std::size_t>(length), entry->data.size() - position);
                std::copy_n(entry->data.data() + position, count, static_cast<char*>(data));
                position += count;
                return static_cast<zip_int64_t>(count);
            }
            case ZIP_SOURCE_CLOSE: entry->data = std::string(); return 0;
            case ZIP_SOURCE_STAT: {
                auto* stat = static_cast<zip_stat_t*>(data);
                zip_stat_init(stat);
                stat->valid = ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE | ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC;
                stat->size = entry->size;
                stat->comp_size = compressedSize;
                stat->comp_method = entry->deflated ? ZIP_CM_DEFLATE : ZIP_CM_STORE;
                stat->crc = entry->crc;
                return sizeof(zip_stat_t);
            }
            default: return answerReadOnlySource(error, data, length, command);
        }
    }
};

// Exceptions must not cross libzip's C frames.
zip_int64_t sourceCallback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    auto* source = static_cast<SourceState*>(state);
    if (command == ZIP_SOURCE_FREE) {
        zip_error_fini(&source->error);
        delete source;
        return 0;
    }
    try {
        if (!source->entry && command != ZIP_SOURCE_SUPPORTS && command != ZIP_SOURCE_ERROR) {
            source->entry = source->produce();
            source->compressedSize = source->entry->data.size();
        }
        return source->call(data, length, command);
    } catch (const std::exception& e) {
        return source->fail(e.what());
    }
}

}  // namespace

zip_source* compressedSource(zip* archive, std::function<CompressedEntry()> produce, std::string* firstError) {
    auto state = std::make_unique<SourceState>();
    state->produce = std::move(produce);
    state->firstError = firstError;
    zip_error_init(&state->error);
    zip_source_t* source = zip_source_function(archive, &sourceCallback, state.get());
    if (source == nullptr) {
        zip_error_fini(&state->error);
        return nullptr;
    }
    // The source owns the state now: ZIP_SOURCE_FREE deletes it.
    static_cast<void>(state.release());
    return source;
}

}  // namespace opcdir
