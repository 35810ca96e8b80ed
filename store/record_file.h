// Opening the files of a record.
#ifndef STORE_RECORD_FILE_H
#define STORE_RECORD_FILE_H

#include "cmn/status.h"
#include "os/files.h"

// Opens a record's file for reading, never through a link.
//   kOk            `file` is open and has `size` bytes
//   kMissing       it cannot be opened
//   `notRegular`   it is no regular file
[[nodiscard]] inline Status openRecordFile(const char* path, Status notRegular, os::File& file,
                                           off_t& size) {
    switch (os::openRegular(path, file, size, os::Links::kRefuse)) {
        case os::Opened::kFailed:
            return kMissing;
        case os::Opened::kNotRegular:
            return notRegular;
        case os::Opened::kRegular:
            break;
    }
    return kOk;
}

#endif  // STORE_RECORD_FILE_H
