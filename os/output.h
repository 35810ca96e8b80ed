// What is written under a name that a user gives: a file that is replaced as a whole, or
// something to write into.
//
// A regular file, or none, is replaced: the bytes go into a draft (os/draft.h), which takes the
// name when it is complete and durable. Whoever reads the file meanwhile, and whoever looks after a
// crash, finds the old bytes or the new ones. A device or a FIFO is written through, and so is a
// descriptor of this process that is named as one, as in /dev/stdout or /dev/fd/3; with a FIFO,
// opening waits for its reader. A symbolic link is refused: it may lead where the user does not
// look.
//
// Each object belongs to one thread at a time; strings throw std::bad_alloc.
#ifndef OS_OUTPUT_H
#define OS_OUTPUT_H

#include <optional>
#include <string>
#include <string_view>

#include "os/draft.h"
#include "os/handles.h"

namespace os {

// The number of a descriptor of this process that the path names, or -1. Opened again by that path,
// a file would be written from its beginning, wherever the caller's position is.
[[nodiscard]] int descriptorNamed(std::string_view path) noexcept;

class Output {
public:
    Output() = default;
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output() = default;  // without commit() the file is what it was, and no draft is left

    enum class Opened {
        kReady,
        kLink,   // a symbolic link has the name
        kFailed  // see errno
    };
    [[nodiscard]] Opened open(const std::string& path);

    // Where to write, once it is ready.
    int fd() const noexcept {
        return through_ >= 0 ? through_ : draft_ ? draft_->file().get() : file_.get();
    }

    // The bytes are complete. False with errno when the system reports a failure; then
    // the file is the old one, or the new one whose name may not last.
    [[nodiscard]] bool commit() noexcept;

private:
    bool openThrough(const char* path) noexcept;

    std::optional<Draft> draft_;  // none when written through
    File file_;                   // what is written through
    int through_ = -1;            // a descriptor that is this process's anyway, or none
};

}  // namespace os

#endif  // OS_OUTPUT_H
