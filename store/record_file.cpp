#include "store/record_file.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "cmn/wipe.h"
#include "os/fs.h"

namespace {

// What a page of memory has at least. A file system gives less than it was asked for at the
// end of a file; or where a page ends, if the next one cannot be had.
constexpr std::size_t kPage = 4096;

ssize_t readAt(const os::File& file, void* data, std::size_t size, off_t at) noexcept {
    ssize_t got = -1;
    do {
        got = os::pread(file.get(), data, size, at);
    } while (got < 0 && errno == EINTR);
    return got;
}

}  // namespace

RecordFile::~RecordFile() {
    wipe(beginning_, known_);
}

Status RecordFile::open(const char* path, Status notRegular) {
    static_assert(sizeof beginning_ == kPage + 1, "the answer that ends within a page has to fit");
    file_ = os::openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
    if (!file_) {
        return kMissing;
    }
    const ssize_t got = readAt(file_, beginning_, kPage, 0);
    known_ = got > 0 ? static_cast<std::size_t>(got) : 0;
    if (known_ % kPage == 0) {
        return examine(notRegular);
    }
    size_ = static_cast<off_t>(known_);
    return kOk;
}

Status RecordFile::examine(Status notRegular) {
    struct stat status {};
    if (os::fstat(file_.get(), &status) != 0) {
        return kMissing;
    }
    if (!S_ISREG(status.st_mode)) {
        return notRegular;
    }
    size_ = status.st_size;
    return kOk;
}

bool RecordFile::copyTo(void* data) noexcept {
    auto* const bytes = static_cast<char*>(data);
    const auto size = static_cast<std::size_t>(size_);
    if (size < known_) {
        return false;  // cut off since it was opened
    }
    std::copy_n(beginning_, known_, bytes);  // also of none to nowhere
    for (std::size_t done = known_; done != size;) {
        const ssize_t got = readAt(file_, bytes + done, size - done, static_cast<off_t>(done));
        if (got <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}
