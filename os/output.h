// What is written under a name that a user gives: a file that is replaced as a whole, or
// something to write into.
//
// A regular file, or none, is replaced: the bytes go into a draft beside it, which only
// its owner can read, and which takes the name when it is complete and durable. Whoever
// reads the file meanwhile, and whoever looks after a crash, finds the old bytes or the
// new ones. A device or a FIFO is written through, and so is a descriptor of this process
// that is named as one, as in /dev/stdout or /dev/fd/3; with a FIFO, opening waits for its
// reader. A symbolic link is refused: it may lead where the user does not look.
//
// The draft of "name" is ".name.new-" and a digit. A process that is killed leaves it
// behind, and the next output of that name removes it: a lock tells it from the draft of
// one that is alive. Several at a time end one after the other, each whole.
//
// Each object belongs to one thread at a time; strings throw std::bad_alloc.
#ifndef OS_OUTPUT_H
#define OS_OUTPUT_H

#include <optional>
#include <string>

#include "os/handles.h"

namespace os {

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
    int fd() const noexcept { return through_ < 0 ? file_.get() : through_; }

    // The bytes are complete. False with errno when the system reports a failure; then
    // the file is the old one, or the new one whose name may not last.
    [[nodiscard]] bool commit() noexcept;

private:
    enum class Claim { kMine, kBusy, kFailed };

    bool openDraft();
    Claim claim(const std::string& place);
    bool openThrough(const char* path) noexcept;

    std::string path_;
    std::string folder_;  // of a file that is replaced
    // The end is in reverse order: the draft goes while its lock is still held.
    File lock_;
    std::optional<TempPath> draft_;  // none when written through
    File file_;
    int through_ = -1;  // a descriptor that is this process's anyway, or none
};

}  // namespace os

#endif  // OS_OUTPUT_H
