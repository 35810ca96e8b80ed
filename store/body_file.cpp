// A record's body as a file: its bytes, as they are or encrypted, and nothing else.
#include <span>
#include <utility>

#include "cmn/no_throw.h"
#include "os/files.h"
#include "store/file_store.h"
#include "store/record_file.h"

// The bytes that the body file holds; without buffer object when the buffer or the
// cipher failed.
aBuf FileStore::bodyOnDisk() {
    aBuf bytes(body.data(), getBodySize());
    if ((bodyFlag & 1) != 0 && bytes.target() != nullptr) {
        bytes = encoder.encrypt(bytes);
    }
    return bytes;
}

// The format has no way to tell an empty body file from one whose bytes were lost,
// so an empty body is a failure.
bool FileStore::writeBytes(const os::File& file, const aBuf& bytes) {
    const std::span<const unsigned char> data = bytes.view();
    return !data.empty() && os::writeAll(file.get(), data.data(), data.size());
}

Status FileStore::writeBody(const char* path) {
    if (path == nullptr) {
        return kInvalid;
    }
    return noThrow([&] {
        const aBuf bytes = bodyOnDisk();
        if (bytes.target() == nullptr) {
            return kIo;
        }
        os::TempPath unfinished(path);
        os::File file = os::createAnew(path);
        const bool written = file && writeBytes(file, bytes);
        if (written || !file) {
            unfinished.commit();  // complete, or nothing was made
        }
        return written && os::closeDurably(std::move(file)) ? kOk : kIo;
    });
}

Status FileStore::readBody(const char* path) {
    if (path == nullptr) {
        return kInvalid;
    }
    RecordFile file;
    if (const Status status = file.open(path, kIo); status != kOk) {
        return status;
    }
    const auto size = static_cast<unsigned int>(file.size());  // a body has 32 bits of size
    if (static_cast<off_t>(size) != file.size()) {
        return kIo;
    }
    const Status resized = noThrow([&] {
        body.resize(size);
        return kOk;
    });
    return resized == kOk && file.copyTo(body.data()) ? kOk : kIo;
}
