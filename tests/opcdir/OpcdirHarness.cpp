#include "OpcdirHarness.h"

#include "Commands.h"
#include "support/TempDir.h"

#include <zip.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>

#ifndef OPCDIR_PATH
#error "OPCDIR_PATH must name the opcdir binary"
#endif

namespace opc::test {
namespace {

std::uint32_t crc32(const std::string& data) {
    static const std::array<std::uint32_t, 256> table = [] {
        std::array<std::uint32_t, 256> values{};
        for (std::uint32_t i = 0; i < 256; ++i) {
            std::uint32_t c = i;
            for (int k = 0; k < 8; ++k) c = (c & 1) != 0 ? 0xedb88320u ^ (c >> 1) : c >> 1;
            values[i] = c;
        }
        return values;
    }();
    std::uint32_t crc = 0xffffffffu;
    for (const char c : data) crc = table[(crc ^ static_cast<unsigned char>(c)) & 0xff] ^ (crc >> 8);
    return crc ^ 0xffffffffu;
}

void put16(std::string& out, std::uint32_t value) {
    out += static_cast<char>(value & 0xff);
    out += static_cast<char>((value >> 8) & 0xff);
}

void put32(std::string& out, std::uint32_t value) {
    put16(out, value & 0xffff);
    put16(out, value >> 16);
}

std::uint32_t get(const std::string& bytes, std::size_t at, int count) {
    if (at + static_cast<std::size_t>(count) > bytes.size()) throw std::runtime_error("archive too short");
    std::uint32_t value = 0;
    for (int i = count - 1; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(i)]);
    return value;
}

void set32(std::string& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[at + static_cast<std::size_t>(i)] = static_cast<char>((value >> (8 * i)) & 0xff);
}

// Calls visit(offset of the record) for every central-directory record.
template <class Visit>
void forEachRecord(const std::string& archive, Visit visit) {
    std::size_t end = archive.rfind(std::string("PK\x05\x06", 4));
    if (end == std::string::npos) throw std::runtime_error("no end of central directory");
    const std::uint32_t count = get(archive, end + 10, 2);
    std::size_t position = get(archive, end + 16, 4);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (get(archive, position, 4) != 0x02014b50) throw std::runtime_error("bad central directory");
        visit(position);
        position +=
            46 + get(archive, position + 28, 2) + get(archive, position + 30, 2) + get(archive, position + 32, 2);
    }
}

std::string readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

RunResult runOpcdir(const std::filesystem::path& in,
                    const std::vector<std::string>& arguments,
                    const std::string& input) {
    TempDir io;
    writeBytes(io.path() / "in", input);
    const std::string inPath = (io.path() / "in").string();
    const std::string outPath = (io.path() / "out").string();
    const std::string errPath = (io.path() / "err").string();

    std::vector<std::string> argv{OPCDIR_PATH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    for (std::string& argument : argv) pointers.push_back(argument.data());
    pointers.push_back(nullptr);

    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
        const int fds[3] = {::open(inPath.c_str(), O_RDONLY),
                            ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644),
                            ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)};
        for (int i = 0; i < 3; ++i) {
            if (fds[i] < 0 || ::dup2(fds[i], i) < 0) ::_exit(126);
        }
        if (::chdir(in.c_str()) != 0) ::_exit(126);
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child) throw std::runtime_error("waitpid failed");
    RunResult result;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = readBytes(outPath);
    result.err = readBytes(errPath);
    return result;
}

RunResult runOpcdirWith(opc::FileSystemOps& fileSystem,
                        const std::vector<std::string>& arguments,
                        const std::string& input,
                        bool errIsTerminal) {
    std::istringstream in(input);
    std::ostringstream out;
    std::ostringstream err;
    opcdir::Io io{in, out, err, errIsTerminal};
    RunResult result;
    result.status = opcdir::run(arguments, io, fileSystem);
    result.out = out.str();
    result.err = err.str();
    return result;
}

std::string rawZip(const std::vector<RawEntry>& entries) {
    std::string body;
    std::string directory;
    for (const RawEntry& entry : entries) {
        const auto offset = static_cast<std::uint32_t>(body.size());
        const std::uint32_t crc = crc32(entry.data);
        const auto size = static_cast<std::uint32_t>(entry.data.size());
        const auto nameLength = static_cast<std::uint32_t>(entry.name.size());
        put32(body, 0x04034b50);
        for (std::uint32_t value : {20u, 0u, 0u, 0u, 0x21u}) put16(body, value);
        put32(body, crc);
        put32(body, size);
        put32(body, size);
        put16(body, nameLength);
        put16(body, 0);
        body += entry.name + entry.data;

        put32(directory, 0x02014b50);
        for (std::uint32_t value : {20u, 20u, 0u, 0u, 0u, 0x21u}) put16(directory, value);
        put32(directory, crc);
        put32(directory, size);
        put32(directory, size);
        for (std::uint32_t value : {nameLength, 0u, 0u, 0u, 0u}) put16(directory, value);
        put32(directory, 0);
        put32(directory, offset);
        directory += entry.name;
    }
    std::string end;
    put32(end, 0x06054b50);
    for (std::uint32_t value :
         {0u, 0u, static_cast<std::uint32_t>(entries.size()), static_cast<std::uint32_t>(entries.size())}) {
        put16(end, value);
    }
    put32(end, static_cast<std::uint32_t>(directory.size()));
    put32(end, static_cast<std::uint32_t>(body.size()));
    put16(end, 0);
    return body + directory + end;
}

std::string deflatedZip(const std::vector<std::pair<std::string, std::string>>& entries) {
    TempDir folder;
    const std::string path = (folder.path() / "made.zip").string();
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_EXCL, &error);
    if (archive == nullptr) throw std::runtime_error("zip_open failed");
    for (const auto& [name, data] : entries) {
        zip_source_t* source = zip_source_buffer(archive, data.data(), data.size(), 0);
        const zip_int64_t index = zip_file_add(archive, name.c_str(), source, 0);
        if (index < 0 || zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), ZIP_CM_DEFLATE, 9) != 0) {
            zip_discard(archive);
            throw std::runtime_error("zip_file_add failed");
        }
    }
    if (zip_close(archive) != 0) {
        zip_discard(archive);
        throw std::runtime_error("zip_close failed");
    }
    return readBytes(path);
}

void setDeclaredSize(std::string& archive, const std::string& name, std::uint32_t size) {
    bool found = false;
    forEachRecord(archive, [&](std::size_t record) {
        if (archive.compare(record + 46, get(archive, record + 28, 2), name) != 0) return;
        set32(archive, record + 24, size);
        set32(archive, get(archive, record + 42, 4) + 22, size);
        found = true;
    });
    if (!found) throw std::runtime_error("no entry " + name);
}

std::vector<DirectoryRecord> centralDirectory(const std::string& archive) {
    std::vector<DirectoryRecord> records;
    forEachRecord(archive, [&](std::size_t at) {
        DirectoryRecord record;
        const std::uint32_t nameLength = get(archive, at + 28, 2);
        const std::uint32_t extraLength = get(archive, at + 30, 2);
        record.madeBy = static_cast<std::uint16_t>(get(archive, at + 4, 2));
        record.flags = static_cast<std::uint16_t>(get(archive, at + 8, 2));
        record.method = static_cast<std::uint16_t>(get(archive, at + 10, 2));
        record.dosTime = static_cast<std::uint16_t>(get(archive, at + 12, 2));
        record.dosDate = static_cast<std::uint16_t>(get(archive, at + 14, 2));
        record.externalAttributes = get(archive, at + 38, 4);
        record.name = archive.substr(at + 46, nameLength);
        record.extra = archive.substr(at + 46 + nameLength, extraLength);
        const std::uint32_t local = get(archive, at + 42, 4);
        record.localExtra = archive.substr(local + 30 + get(archive, local + 26, 2), get(archive, local + 28, 2));
        records.push_back(std::move(record));
    });
    return records;
}

void writeBytes(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace opc::test
