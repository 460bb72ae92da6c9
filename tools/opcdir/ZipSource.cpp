#include "ZipSource.h"

namespace opcdir {

zip_int64_t answerReadOnlySource(zip_error_t& error, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    switch (command) {
        case ZIP_SOURCE_ERROR: return zip_error_to_data(&error, data, length);
        case ZIP_SOURCE_FREE: return 0;
        case ZIP_SOURCE_SUPPORTS:
            return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT,
                                                  ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
        default: zip_error_set(&error, ZIP_ER_OPNOTSUPP, 0); return -1;
    }
}

}  // namespace opcdir
