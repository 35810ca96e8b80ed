// Files and folders as wholes: listing, copying, emptying, removing, naming.
//
// Paths are joined as folder + "/" + name and relative ones start at the current
// directory. Nothing here takes a lock or coordinates with others who change the
// same files: callers that must exclude them hold the store's lock. Distinct
// FileList objects and the functions may be used by any threads; one FileList
// belongs to one thread at a time. Nothing is made durable.
#ifndef STORE_FILEFUNC_H
#define STORE_FILEFUNC_H

#include <string>
#include <string_view>

#include "cmn/export.h"
#include "cmn/status.h"
#include "os/handles.h"

// Iterates over the entries of one folder. The slot and the order of the fields
// are a binary contract with other modules.
class CMN_EXPORT FileList {
public:
    FileList() noexcept;  // on ".", not yet open
    FileList(const FileList&) = delete;
    FileList& operator=(const FileList&) = delete;
    virtual ~FileList();

    // The folder that the next readFirst() opens; null and "" mean ".".
    //   kNoMemory  the path could not be kept; the old one stays
    [[nodiscard]] Status setRootFolder(const char* path);
    const char* getRootFolder() const;  // valid until it is set again

    // Opens the folder afresh and moves to its first entry. Entries come in the
    // system's order, "." and ".." among them.
    //   kOk        getName() and isFolder() describe the entry
    //   kEnd       the folder has no entries
    //   kIo        the folder could not be opened or read, or the entry not examined
    //   kNoMemory  the entry could not be examined for lack of memory
    [[nodiscard]] Status readFirst();

    // Moves to the next entry: as readFirst(), and
    //   kClosed  no folder is open
    // The folder stays open at its end.
    [[nodiscard]] Status readNext();

    // The entry's bare name, owned by the iterator and valid until it moves;
    // null when no folder is open, and where the last move failed.
    const char* getName() const;

    // 1 when the current entry is a folder, else 0, also for a symbolic link to one.
    int isFolder() const;

    // Whether the entry is known to be a regular file. Some file systems do not tell.
    CMN_HIDDEN bool isRegularFile() const;

private:
    CMN_HIDDEN Status describeEntry(const dirent* entry);

    std::string root = ".";
    int folder = 0;
    os::Dir stream;
    const dirent* current = nullptr;
};

// Copies the bytes of one regular file, or of the one that a symbolic link leads
// to. An existing `to` is overwritten.
//   kIo  a file could not be opened, read or written, or `from` is not a regular
//        file; a target that was opened is deleted, one that was not is as before
[[nodiscard]] CMN_EXPORT Status copyFile(const char* from, const char* to);

// Copies what is in the folder `from` into the folder `to`, which is created
// (mode 0750) if need be; other contents of it are kept. Ends at the first
// failure; what was copied so far stays. A folder that cannot be listed counts
// as empty, and a listing that breaks off as complete: where records could be
// lost that way, use duplicateFolder().
//   kInvalid   an argument is null
//   kIo        a folder could not be created, or a file not copied
//   kNoMemory  a path could not be formed
[[nodiscard]] CMN_EXPORT Status copyFolder(const char* from, const char* to);
[[nodiscard]] CMN_EXPORT Status copyFolder_r(const char* from, const char* to);  // not null

// As copyFolder(), but makes `to`, and succeeds only when all of `from` was seen and is there.
// Regular files whose names `isReplaced` takes are not copied where the file system allows it: they
// get a second name in `to`. Bytes that somebody changes in place change under both; a file that is
// replaced or deleted in one folder stays what it is in the other. None for null.
//   kIo  also when `to` is there; or `from` or a folder in it is absent or could not be listed
//        to its end, or a file ended before its size
using NameTest = bool (*)(std::string_view name);
[[nodiscard]] Status duplicateFolder(const char* from, const char* to, NameTest isReplaced);

// Deletes all that is in a folder; the folder stays, and so does silently what
// cannot be deleted. A symbolic link is deleted, not followed, also when `path` is one.
CMN_EXPORT void clearFolder(const char* path);  // not null

// Deletes a folder with all that is in it; one that does not exist is a success. Where
// `path` is a symbolic link, the link goes and what it leads to stays.
//   kInvalid   `path` is null
//   kIo        it is still there, or might be; part of the contents may be gone
[[nodiscard]] CMN_EXPORT Status removeFolder(const char* path);

// The absolute path without symbolic links, or `path` itself when there is no
// such file. Empty when `path` is null or memory is short.
[[nodiscard]] CMN_EXPORT std::string getFullPath(const char* path);

#endif  // STORE_FILEFUNC_H
