#include "Zip.h"

#include "Errors.h"
#include "PartNames.h"

#include <zip.h>

#include <fcntl.h>
#include <unistd.h>

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>

namespace opcdir {
namespace {

constexpr std::size_t kPiece = std::size_t{64} * 1024;

std::uint64_t little(const unsigned char* bytes, int count) {
    std::uint64_t value = 0;
    for (int i = count - 1; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
}

class RawFile {
public:
    explicit RawFile(const std::string& path) : stream(path, std::ios::binary) {}
    bool good() const { return static_cast<bool>(stream); }
    std::uint64_t size() {
        stream.seekg(0, std::ios::end);
        return static_cast<std::uint64_t>(stream.tellg());
    }
    bool readAt(std::uint64_t offset, std::size_t count, std::vector<unsigned char>& out) {
        out.resize(count);
        stream.clear();
        stream.seekg(static_cast<std::streamoff>(offset));
        stream.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(count));
        return static_cast<std::size_t>(stream.gcount()) == count;
    }

private:
    std::ifstream stream;
};

// libzip replaces a NUL in an entry name by a space, which would turn a
// hostile name into a harmless-looking one; the names are therefore read from
// the central directory's own bytes.
std::vector<std::string> centralDirectoryNames(const std::string& subject, const std::string& path) {
    RawFile file(path);
    if (!file.good()) throw Failure(subject, std::string("cannot open: ") + std::strerror(errno));
    const std::uint64_t fileSize = file.size();
    const auto notZip = [&]() {
        return Failure(subject, "not a ZIP archive, or truncated (no end of central directory)");
    };
    const auto corrupt = [&](const std::string& what) { return Failure(subject, "corrupt ZIP archive: " + what); };

    constexpr std::uint64_t kEndSize = 22;
    if (fileSize < kEndSize) throw notZip();
    const std::uint64_t tailSize = std::min<std::uint64_t>(fileSize, kEndSize + 0xffff);
    std::vector<unsigned char> tail;
    if (!file.readAt(fileSize - tailSize, static_cast<std::size_t>(tailSize), tail)) throw notZip();
    std::size_t end = tail.size() - kEndSize + 1;
    bool found = false;
    while (end-- > 0) {
        if (little(&tail[end], 4) == 0x06054b50 && end + kEndSize + little(&tail[end + 20], 2) <= tail.size()) {
            found = true;
            break;
        }
    }
    if (!found) throw notZip();
    std::uint64_t count = little(&tail[end + 10], 2);
    std::uint64_t directorySize = little(&tail[end + 12], 4);
    std::uint64_t directoryOffset = little(&tail[end + 16], 4);
    const std::uint64_t endOffset = fileSize - tailSize + end;

    if (count == 0xffff || directorySize == 0xffffffff || directoryOffset == 0xffffffff) {
        std::vector<unsigned char> locator;
        if (endOffset < 20 || !file.readAt(endOffset - 20, 20, locator) || little(&locator[0], 4) != 0x07064b50) {
            throw corrupt("missing ZIP64 end of central directory locator");
        }
        std::vector<unsigned char> record;
        if (!file.readAt(little(&locator[8], 8), 56, record) || little(&record[0], 4) != 0x06064b50) {
            throw corrupt("missing ZIP64 end of central directory");
        }
        count = little(&record[32], 8);
        directorySize = little(&record[40], 8);
        directoryOffset = little(&record[48], 8);
    }
    if (directoryOffset > fileSize || directorySize > fileSize - directoryOffset)
        throw corrupt("central directory out of bounds");

    std::vector<unsigned char> directory;
    if (!file.readAt(directoryOffset, static_cast<std::size_t>(directorySize), directory))
        throw corrupt("central directory unreadable");
    std::vector<std::string> names;
    std::size_t position = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (position + 46 > directory.size() || little(&directory[position], 4) != 0x02014b50) {
            throw corrupt("bad central directory entry");
        }
        const std::size_t nameLength = little(&directory[position + 28], 2);
        const std::size_t extraLength = little(&directory[position + 30], 2);
        const std::size_t commentLength = little(&directory[position + 32], 2);
        if (position + 46 + nameLength > directory.size()) throw corrupt("bad central directory entry");
        names.emplace_back(reinterpret_cast<const char*>(&directory[position + 46]), nameLength);
        position += 46 + nameLength + extraLength + commentLength;
    }
    return names;
}

std::string zipErrorText(int code) {
    zip_error_t error;
    zip_error_init_with_code(&error, code);
    std::string text = zip_error_strerror(&error);
    zip_error_fini(&error);
    return text;
}

bool isAscii(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Only the byte structure is checked; libzip validates the rest when the
// name is marked UTF-8.
bool isUtf8(const std::string& name) {
    for (std::size_t i = 0; i < name.size();) {
        const auto byte = static_cast<unsigned char>(name[i]);
        const std::size_t length = byte < 0x80           ? 1
                                   : (byte >> 5) == 0x6  ? 2
                                   : (byte >> 4) == 0xe  ? 3
                                   : (byte >> 3) == 0x1e ? 4
                                                         : 0;
        if (length == 0 || i + length > name.size()) return false;
        for (std::size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(name[i + k]) & 0xc0) != 0x80) return false;
        }
        i += length;
    }
    return true;
}

std::string temporaryNameBeside(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::random_device random;
    for (;;) {
        char suffix[17];
        std::snprintf(suffix, sizeof suffix, "%08x%08x", random(), random());
        std::string candidate = folder;
        candidate.append(".").append(base).append(".").append(suffix).append(".tmp");
        struct stat info {};
        if (::lstat(candidate.c_str(), &info) != 0 && errno == ENOENT) return candidate;
    }
}

// 1980-01-01 00:00:00, the first moment a ZIP timestamp can hold.
constexpr zip_uint16_t kDosDate = (0 << 9) | (1 << 5) | 1;
constexpr zip_uint16_t kDosTime = 0;

}  // namespace

// ---- Reading ---------------------------------------------------------------------

ZipReader::ZipReader(std::string subjectName, const std::string& archivePath)
    : subject(std::move(subjectName)), path(archivePath) {
    const std::vector<std::string> names = centralDirectoryNames(subject, path);
    int error = 0;
    archive = zip_open(path.c_str(), ZIP_RDONLY, &error);
    if (archive == nullptr) throw Failure(subject, "corrupt ZIP archive: " + zipErrorText(error));
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count < 0 || static_cast<std::uint64_t>(count) != names.size()) {
        throw Failure(subject, "corrupt ZIP archive: inconsistent entry count");
    }
    for (zip_int64_t i = 0; i < count; ++i) {
        zip_stat_t stat;
        if (zip_stat_index(archive, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_RAW, &stat) != 0) {
            throw Failure(subject, "corrupt ZIP archive: " + std::string(zip_strerror(archive)));
        }
        ZipEntry entry;
        entry.index = static_cast<std::uint64_t>(i);
        entry.name = names[static_cast<std::size_t>(i)];
        entry.size = (stat.valid & ZIP_STAT_SIZE) != 0 ? stat.size : 0;
        entry.compressedSize = (stat.valid & ZIP_STAT_COMP_SIZE) != 0 ? stat.comp_size : 0;
        all.push_back(std::move(entry));
    }
}

ZipReader::~ZipReader() {
    if (archive != nullptr) zip_discard(archive);
}

void ZipReader::checkConsistency() {
    int error = 0;
    zip_t* checked = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
    if (checked == nullptr) throw Failure(subject, "corrupt ZIP archive: " + zipErrorText(error));
    zip_discard(checked);
}

void ZipReader::read(const ZipEntry& entry, const std::function<void(const char*, std::size_t)>& sink) {
    const auto corrupt = [&](const std::string& what) {
        return Failure(subject, "corrupt entry " + quoteName(entry.name) + ": " + what);
    };
    std::unique_ptr<zip_file_t, int (*)(zip_file_t*)> file(zip_fopen_index(archive, entry.index, 0), &zip_fclose);
    if (!file) throw corrupt(zip_strerror(archive));
    std::vector<char> buffer(kPiece);
    for (;;) {
        const zip_int64_t got = zip_fread(file.get(), buffer.data(), buffer.size());
        if (got < 0) throw corrupt(zip_file_strerror(file.get()));
        if (got == 0) return;
        sink(buffer.data(), static_cast<std::size_t>(got));
    }
}

// ---- Writing ---------------------------------------------------------------------

struct ZipWriter::Context {
    ZipWriter* writer = nullptr;
    EntrySource* source = nullptr;
    std::string name;
    std::uint64_t size = 0;
    std::uint64_t done = 0;
    bool opened = false;
    zip_error_t error{};

    // Exceptions must not cross libzip's C frames: each becomes the writer's
    // first error and a failed read.
    zip_int64_t fail(const std::string& message) {
        if (writer->firstError.empty()) writer->firstError = message;
        zip_error_set(&error, ZIP_ER_READ, 0);
        return -1;
    }

    zip_int64_t call(void* data, zip_uint64_t length, zip_source_cmd_t command) {
        try {
            switch (command) {
                case ZIP_SOURCE_OPEN:
                    done = 0;
                    source->open();
                    opened = true;
                    return 0;
                case ZIP_SOURCE_READ: {
                    const std::size_t got = source->read(static_cast<char*>(data), static_cast<std::size_t>(length));
                    done += got;
                    writer->bytesRead += got;
                    if (writer->progress) writer->progress(writer->bytesRead);
                    if (done > size || (got == 0 && done != size))
                        return fail("part " + quoteName(name) + " changed while it was packed");
                    return static_cast<zip_int64_t>(got);
                }
                case ZIP_SOURCE_CLOSE:
                    if (opened) source->close();
                    opened = false;
                    return 0;
                case ZIP_SOURCE_STAT: {
                    auto* stat = static_cast<zip_stat_t*>(data);
                    zip_stat_init(stat);
                    stat->valid = ZIP_STAT_SIZE;
                    stat->size = size;
                    return sizeof(zip_stat_t);
                }
                case ZIP_SOURCE_ERROR: return zip_error_to_data(&error, data, length);
                case ZIP_SOURCE_FREE: return 0;
                case ZIP_SOURCE_SUPPORTS:
                    return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE,
                                                          ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
                default: zip_error_set(&error, ZIP_ER_OPNOTSUPP, 0); return -1;
            }
        } catch (const std::exception& e) {
            return fail(e.what());
        }
    }

    static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
        return static_cast<Context*>(state)->call(data, length, command);
    }
};

ZipWriter::ZipWriter(std::string subjectName, const std::string& archivePath)
    : subject(std::move(subjectName)), path(archivePath), temporaryPath(temporaryNameBeside(archivePath)) {
    int error = 0;
    archive = zip_open(temporaryPath.c_str(), ZIP_CREATE | ZIP_EXCL, &error);
    if (archive == nullptr) throw Failure(subject, "cannot create: " + zipErrorText(error));
}

ZipWriter::~ZipWriter() {
    if (archive != nullptr) zip_discard(archive);
    if (!committed) ::unlink(temporaryPath.c_str());
    for (auto& context : contexts) zip_error_fini(&context->error);
}

void ZipWriter::add(const std::string& name, std::uint64_t size, EntrySource& source) {
    auto context = std::make_unique<Context>();
    context->writer = this;
    context->source = &source;
    context->name = name;
    context->size = size;
    zip_error_init(&context->error);
    zip_source_t* zipSource = zip_source_function(archive, &Context::callback, context.get());
    contexts.push_back(std::move(context));
    if (zipSource == nullptr)
        throw Failure(subject, std::string("cannot add ") + quoteName(name) + ": " + zip_strerror(archive));

    const zip_flags_t encoding = isAscii(name) ? ZIP_FL_ENC_GUESS : isUtf8(name) ? ZIP_FL_ENC_UTF_8 : ZIP_FL_ENC_RAW;
    const zip_int64_t index = zip_file_add(archive, name.c_str(), zipSource, encoding);
    if (index < 0) {
        zip_source_free(zipSource);
        throw Failure(subject, std::string("cannot add ") + quoteName(name) + ": " + zip_strerror(archive));
    }
    const auto entry = static_cast<zip_uint64_t>(index);
    if (zip_set_file_compression(archive, entry, ZIP_CM_DEFLATE, 0) != 0 ||
        zip_file_set_dostime(archive, entry, kDosTime, kDosDate, 0) != 0 ||
        zip_file_set_external_attributes(archive, entry, 0, ZIP_OPSYS_DOS, 0) != 0) {
        throw Failure(subject, std::string("cannot add ") + quoteName(name) + ": " + zip_strerror(archive));
    }
}

void ZipWriter::commit() {
    if (zip_close(archive) != 0) {
        const std::string cause = !firstError.empty() ? firstError : zip_strerror(archive);
        throw Failure(subject, cause);
    }
    archive = nullptr;

    // The data reaches the disk before the name does, so that a crash right
    // after the rename cannot leave an archive of holes.
    const int descriptor = ::open(temporaryPath.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || ::fsync(descriptor) != 0) {
        const int error = errno;
        if (descriptor >= 0) ::close(descriptor);
        throw Failure(subject, std::string("cannot write: ") + std::strerror(error));
    }
    ::close(descriptor);
    if (::rename(temporaryPath.c_str(), path.c_str()) != 0) {
        throw Failure(subject, std::string("cannot write: ") + std::strerror(errno));
    }
    committed = true;
}

}  // namespace opcdir
