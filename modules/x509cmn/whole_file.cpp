#include "modules/x509cmn/whole_file.h"

#include <type_traits>
#include <utility>

#include "os/files.h"
#include "os/handles.h"
#include "os/output.h"

Status loadWhole(const char* path, std::size_t most, WipedBytes& into) noexcept {
    os::File file;
    off_t size = 0;
    if (os::openRegular(path, file, size) != os::Opened::kRegular) {
        return kMissing;
    }
    WipedBytes bytes;
    if (static_cast<std::make_unsigned_t<off_t>>(size) > most ||
        !bytes.reset(static_cast<std::size_t>(size))) {
        return kNoMemory;
    }
    // One byte more tells a file that grows, or whose size is not its length.
    unsigned char beyond = 0;
    if (!os::readAll(file.get(), bytes.data(), bytes.size()) ||
        os::readSome(file.get(), &beyond, 1) != 0) {
        return kIo;
    }
    into = std::move(bytes);
    return kOk;
}

Status saveWhole(const char* path, std::span<const unsigned char> bytes) {
    os::Output file;
    switch (file.open(path)) {
        case os::Output::Opened::kLink:
            return kInvalid;
        case os::Output::Opened::kFailed:
            return kIo;
        case os::Output::Opened::kReady:
            break;
    }
    return os::writeAll(file.fd(), bytes.data(), bytes.size()) && file.commit() ? kOk : kIo;
}
