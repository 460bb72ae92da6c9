#pragma once

#include <boost/system/error_code.hpp>

#include <ostream>
#include <streambuf>
#include <vector>

namespace opc::detail {

// A write-only stream buffer over a file descriptor that it owns. Unlike the
// standard file buffers it keeps the errno of the first failed write, so that
// a failure met while flushing the last bytes can still be reported.
class OutputFileBuffer final : public std::streambuf {
public:
    explicit OutputFileBuffer(int fd);
    OutputFileBuffer(const OutputFileBuffer&) = delete;
    OutputFileBuffer& operator=(const OutputFileBuffer&) = delete;
    ~OutputFileBuffer() override;

    // Writes out what is buffered, closes the file and returns the first
    // error that any write or the close met.
    boost::system::error_code finish();

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* data, std::streamsize count) override;
    int sync() override;
    pos_type seekoff(off_type offset, std::ios_base::seekdir direction, std::ios_base::openmode) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode) override;

private:
    bool drain();
    bool writeAll(const char* data, std::size_t size);

    int file;
    boost::system::error_code firstError;
    std::vector<char> buffer;
};

class OutputFile final : public std::ostream {
public:
    explicit OutputFile(int fd) : std::ostream(nullptr), buffer(fd) { rdbuf(&buffer); }
    boost::system::error_code finish() { return buffer.finish(); }

private:
    OutputFileBuffer buffer;
};

}  // namespace opc::detail
