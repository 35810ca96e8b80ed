// Reading the files of a record.
#ifndef STORE_RECORD_FILE_H
#define STORE_RECORD_FILE_H

#include <cstddef>

#include "cmn/status.h"
#include "os/files.h"

// A record's file, read whole. Most are short: those are open, read and known with one call
// each, since an answer that ends within a page tells where the file ends. Wherever a file
// has more, or the answer is anything else, the system is asked what it is and how long.
//
// One thread's. What was read is wiped with the object.
class RecordFile {
public:
    RecordFile() noexcept = default;
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;
    ~RecordFile();

    // Opens it for reading, never through a link, and without waiting for anybody.
    //   kOk            size() is known
    //   kMissing       it cannot be opened
    //   `notRegular`   it is no regular file
    [[nodiscard]] Status open(const char* path, Status notRegular);

    off_t size() const noexcept { return size_; }  // in bytes

    // All bytes, with room for one more behind them; null when only copyTo() can give them.
    char* whole() noexcept { return size_ == static_cast<off_t>(known_) ? beginning_ : nullptr; }

    // All size() bytes, or false: it could not be read, or was cut off meanwhile.
    [[nodiscard]] bool copyTo(void* data) noexcept;

private:
    [[nodiscard]] Status examine(Status notRegular);

    os::File file_;
    off_t size_ = 0;
    std::size_t known_ = 0;  // bytes in beginning_
    char beginning_[4096 + 1];
};

#endif  // STORE_RECORD_FILE_H
