#include "OutputFile.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace opc::detail {
namespace {

// Writes of this size or more go straight to the file; the buffer only
// gathers small ones.
constexpr std::size_t kBufferSize = std::size_t{16} * 1024;

}  // namespace

OutputFileBuffer::OutputFileBuffer(int fd) : file(fd), buffer(kBufferSize) {
    setp(buffer.data(), buffer.data() + buffer.size());
}

OutputFileBuffer::~OutputFileBuffer() { finish(); }

boost::system::error_code OutputFileBuffer::finish() {
    if (file < 0) return firstError;
    drain();
    // close() can be where a write failure first shows (network file systems).
    if (::close(std::exchange(file, -1)) != 0 && errno != EINTR && !firstError) {
        firstError.assign(errno, boost::system::system_category());
    }
    return firstError;
}

bool OutputFileBuffer::writeAll(const char* data, std::size_t size) {
    if (firstError) return false;
    while (size > 0) {
        const ssize_t written = ::write(file, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            firstError.assign(errno, boost::system::system_category());
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool OutputFileBuffer::drain() {
    const auto pending = static_cast<std::size_t>(pptr() - pbase());
    setp(buffer.data(), buffer.data() + buffer.size());
    return file >= 0 && writeAll(buffer.data(), pending);
}

OutputFileBuffer::int_type OutputFileBuffer::overflow(int_type c) {
    if (!drain()) return traits_type::eof();
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
}

std::streamsize OutputFileBuffer::xsputn(const char* data, std::streamsize count) {
    const auto size = static_cast<std::size_t>(count);
    if (size < static_cast<std::size_t>(epptr() - pptr())) {
        traits_type::copy(pptr(), data, size);
        pbump(static_cast<int>(size));
        return count;
    }
    if (!drain()) return 0;
    if (size < buffer.size()) return xsputn(data, count);
    return writeAll(data, size) ? count : 0;
}

int OutputFileBuffer::sync() { return drain() ? 0 : -1; }

OutputFileBuffer::pos_type OutputFileBuffer::seekoff(off_type offset,
                                                     std::ios_base::seekdir direction,
                                                     std::ios_base::openmode) {
    if (!drain()) return pos_type(off_type(-1));
    const int whence = direction == std::ios_base::beg   ? SEEK_SET
                       : direction == std::ios_base::cur ? SEEK_CUR
                                                         : SEEK_END;
    const off_t position = ::lseek(file, offset, whence);
    return pos_type(off_type(position));
}

OutputFileBuffer::pos_type OutputFileBuffer::seekpos(pos_type position, std::ios_base::openmode mode) {
    return seekoff(off_type(position), std::ios_base::beg, mode);
}

}  // namespace opc::detail
