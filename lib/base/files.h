// The user's files, read and written whole, and folders removed whole.
//
// Both kinds of file are opened before the tool changes its folder, so relative names mean
// what the user meant. Failures throw.
#ifndef LIB_BASE_FILES_H
#define LIB_BASE_FILES_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cmn/secret_bytes.h"
#include "os/draft.h"
#include "os/files.h"
#include "os/handles.h"

namespace fstore {

// Where "-" stands for a standard stream.
inline constexpr std::string_view kStandardStream = "-";

// Permissions of files that hold no secret, of scripts without one, and of files that do.
inline constexpr mode_t kReadableByAll = 0644;
inline constexpr mode_t kExecutableByAll = 0755;
inline constexpr mode_t kReadableByOwner = 0600;

class InputFile {
public:
    // Opens `name`, or takes the standard input for "-".
    explicit InputFile(const std::string& name);
    InputFile(os::File file, std::string name) : name_(std::move(name)), file_(std::move(file)) {}

    const std::string& name() const noexcept { return name_; }  // for messages

    // All bytes from here to the end. kInvalid when there are more than `most`; a file of
    // known size is then not read.
    SecretBytes readAll(std::uint64_t most);

private:
    std::string name_;
    os::File file_;  // none for the standard input
};

// Who knows which files are not the user's to write throws a Failure for them, given the absolute
// path and the user's words. Asked, once it is set, for each file that an OutputFile or
// SwitchedFiles is to put somewhere. One for the process; any thread may set it.
using OutputRule = void (*)(const std::string& path, const std::string& name);
void setOutputRule(OutputRule rule) noexcept;
void refuseOutput(const std::string& path, const std::string& name);

// A file that is complete or as it was before: a draft (os/draft.h) that is written, synced and
// given the name, and readable by its owner only. Or a stream, which takes the bytes as they come:
// the standard output for "-", an open descriptor by its name in /dev or /proc/self/fd, a FIFO, a
// device.
class OutputFile {
public:
    // Creates the draft of `name`, so that obstacles show now; waits for a FIFO's reader.
    // kInvalid for an existing file without `replace`, and always for a folder and for a link:
    // what it leads to may be anybody's. Links of /dev itself are followed to devices.
    OutputFile(const std::string& name, bool replace);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();  // without commit() nothing is left of it, unless it is a stream

    bool isStandardOutput() const noexcept;
    bool isStream() const noexcept { return !draft_; }
    const std::string& name() const noexcept { return name_; }

    void write(std::span<const unsigned char> bytes);

    // Permissions instead of the owner's alone. Of a stream they stay as they are.
    void allow(mode_t mode);

    // What was written, for reading from its beginning. Not of a stream.
    os::File reopen() const;

    void commit();

private:
    void openStream();
    void openDraft();
    [[noreturn]] void failOnDraft() const;
    int fd() const noexcept;

    std::string name_;
    std::string path_;  // absolute
    bool replace_;
    int given_ = -1;                  // the descriptor, when it was open before
    std::optional<os::Draft> draft_;  // none for a stream
    os::File stream_;                 // none for an open descriptor
};

// The path as an absolute one. It need not exist.
std::string absolutePath(const std::string& path);

// The absolute path without links; empty for what is not there.
std::string realPath(const std::string& path);

// "a/b" of "a" and "b".
std::string joined(const std::string& folder, const std::string& name);

struct FolderEntry {
    enum class Type { kFolder, kFile, kOther };
    std::string name;
    Type type;
};

// The entries of a folder by name, without "." and "..".
std::vector<FolderEntry> listFolder(const std::string& path);
std::vector<FolderEntry> readFolder(const std::string& path);  // in no order

// Calls use(entry) for each of them, in no order: of millions, none is kept.
using EntryUser = std::function<void(FolderEntry)>;
void visitEntries(const std::string& path, const EntryUser& use);

// Whether a folder has no folder in it, where its file system counts them and the count can be had
// without reading the folder; false where that is not known.
bool hasNoFolders(const std::string& path);

struct RegularFile {
    os::File file;
    std::uint64_t size;
};

// Opens a regular file for reading, not through a link. Throws kMalformed for anything else.
RegularFile openRegular(const std::string& path);

// Calls use(piece) for the bytes of a file that openRegular() opens, one piece after the other.
using PieceUser = std::function<void(std::span<const unsigned char>)>;
void readInPieces(const std::string& path, const PieceUser& use);

bool exists(const std::string& path);  // not following a link; throws if it cannot know

// What is there, not following a link, and kUnknown for nothing; throws if it cannot know.
os::EntryType typeOf(const std::string& path);
bool isA(os::EntryType type, const std::string& path);  // a type, not kUnknown

// Removes a folder with its contents, without following links in it; does nothing if there is
// none. If the name is a link, the link goes and its target stays.
void removeTree(const std::string& path);

// Makes what was created, renamed or removed in a folder durable.
void syncFolder(const std::string& path);

}  // namespace fstore

#endif  // LIB_BASE_FILES_H
