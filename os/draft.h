// A new file for a name that a user gives, until it is complete. Only its owner can read it, and
// nobody finds it under that name before.
//
// Where the file system can, it has no name at all, so that nothing is left of it when the process
// is killed. It then needs the name of a draft only to take another file's place, since a link
// replaces nothing: between two calls. On other file systems it has that name from the beginning.
//
// The draft of "name" is ".name.new-", a number that nobody gives a file of theirs, and a digit. A
// process that is killed leaves it behind, and the next draft for that name removes it: a lock
// tells it from one that is alive. What belongs to somebody else is left alone. Several at a time
// end one after the other, each whole.
//
// Each object belongs to one thread at a time; strings throw std::bad_alloc.
#ifndef OS_DRAFT_H
#define OS_DRAFT_H

#include <optional>
#include <string>

#include "os/handles.h"

namespace os {

class Draft {
public:
    // Is told the name that a draft has got, and null when it has become the file: for who removes
    // it when a signal ends the process.
    using Watch = void (*)(const char* path) noexcept;

    explicit Draft(Watch watch = nullptr) noexcept : watch_(watch) {}
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    ~Draft() = default;  // without commit() no draft is left

    // A draft for this path, and no leftover of another. False with errno.
    [[nodiscard]] bool open(const std::string& path);

    // Open for writing, until commit(); none before open().
    const File& file() const noexcept { return file_; }

    // What was written, for reading from its beginning; an empty File on failure.
    [[nodiscard]] File reopenForReading() const noexcept;

    enum class Existing {
        kReplaced,
        kKept  // EEXIST when something has the name
    };
    // The bytes are complete: makes them durable and gives them the name. False with errno when the
    // system reports a failure; then nothing has changed.
    [[nodiscard]] bool commit(Existing existing) noexcept;

    // After a failure with EEXIST: what has the name of a draft, and is none; empty when it is the
    // file's own name that something has.
    const std::string& inTheWay() const noexcept { return inTheWay_; }

    // Whether the name lasts, too; after commit().
    [[nodiscard]] bool syncName() const noexcept;

private:
    enum class Claim { kMine, kBusy, kFailed };

    bool openWithoutName() noexcept;
    int clearPlaces() noexcept;
    bool claimPlace() noexcept;
    bool moveToPlace() noexcept;
    Claim claim() noexcept;
    Claim claimByLink() noexcept;
    void haveName() noexcept;

    Watch watch_;
    std::string path_;
    std::string folder_;
    std::string place_;  // of the draft, with the digit last; goes into `named_`
    std::string inTheWay_;
    // The end is in reverse order: the draft goes while its lock is still held.
    File lock_;
    std::optional<TempPath> named_;
    File file_;
};

}  // namespace os

#endif  // OS_DRAFT_H
