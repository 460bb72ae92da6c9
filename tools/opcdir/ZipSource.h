#pragma once

#include <zip.h>

namespace opcdir {

// The answer of a libzip source that libzip only reads in sequence (OPEN,
// READ, CLOSE, STAT, handled by the source itself) to every other command:
// ERROR reports error, FREE does nothing, SUPPORTS names those six commands,
// and anything else fails as unsupported, setting error.
zip_int64_t answerReadOnlySource(zip_error_t& error, void* data, zip_uint64_t length, zip_source_cmd_t command);

}  // namespace opcdir
