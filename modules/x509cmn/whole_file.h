// Files that are read or replaced as a whole. Any thread may call these.
#ifndef MODULES_X509CMN_WHOLE_FILE_H
#define MODULES_X509CMN_WHOLE_FILE_H

#include <cstddef>
#include <span>

#include "cmn/status.h"
#include "modules/common/wiped_bytes.h"

// Replaces `into` by the file's bytes; on failure `into` is what it was.
//   kMissing   there is no regular file of that name that can be opened
//   kNoMemory  the file has more than `most` bytes, or memory has run out
//   kIo        it could not be read, or changed its size meanwhile
[[nodiscard]] Status loadWhole(const char* path, std::size_t most, WipedBytes& into) noexcept;

// Makes `bytes` the file's content, durably, and the owner the only one who may
// read it; or writes them through, as os/output.h says. Throws std::bad_alloc.
//   kInvalid  the name is a symbolic link's
//   kIo       it could not; the file is, as a whole, the old one, or the new one whose
//             durability the system did not confirm
[[nodiscard]] Status saveWhole(const char* path, std::span<const unsigned char> bytes);

#endif  // MODULES_X509CMN_WHOLE_FILE_H
