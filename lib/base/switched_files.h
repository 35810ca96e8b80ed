// Files that programs see change together, by one rename: a single file, or all files of a folder.
//
// Two files cannot be renamed at once. So a folder of such files is a link, in place of which a
// link to another folder is renamed. What belongs to "www", file or folder, is kept in
// ".www.fstore" beside it:
//
//     1, 2, ...   the folders that a link "www" leads to, and has led to
//     before      a copy of the file or link from before, while a replacement is not settled
//     new         what is about to be renamed
//     lock        what the process at it has locked
//
// A process that is killed leaves the old files or the new ones, and the knowledge that they are
// not settled. While the object lives, other processes wait for theirs.
//
// For one thread. Failures throw, and then the files are the old ones or the new ones.
#ifndef LIB_BASE_SWITCHED_FILES_H
#define LIB_BASE_SWITCHED_FILES_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "cmn/secret_bytes.h"
#include "os/handles.h"

namespace fstore {

struct SwitchedFile {
    std::string name;  // an absolute path
    SecretBytes bytes;
    mode_t mode;
};

class SwitchedFiles {
public:
    // One name means that file, several mean files of one folder, which is made as a link when
    // nothing has its name. Waits up to `lockSeconds` for another process. Removes what a killed
    // one left.
    //
    //   kInvalid      the names are not of one folder, or something else has the place: a folder,
    //                 file or link that was not made here, or a special file; or the folder has
    //                 other files besides; or somebody else can rename it or one above it
    //   kAlreadyOpen  another process is at it
    SwitchedFiles(const std::vector<std::string>& names, double lockSeconds);
    // The same but for waiting: refuses the names, and changes nothing.
    static void check(const std::vector<std::string>& names);
    SwitchedFiles(const SwitchedFiles&) = delete;
    SwitchedFiles& operator=(const SwitchedFiles&) = delete;
    ~SwitchedFiles();

    // Whether there are exactly these files now, of this process's user.
    bool hold(const std::vector<SwitchedFile>& files) const;

    // What is in the one file; nothing for no file, or for a folder, whose files were all put
    // there.
    std::optional<SecretBytes> file() const;

    // Whether a replacement was not settled.
    bool isPending() const;

    enum class Before {
        kKept,  // until settle(); what the last settle() left stays kept when there was no other
        kGone   // unless it is kept already; then it stays pending
    };

    // Puts these files in place of what is there.
    void replace(const std::vector<SwitchedFile>& files, Before before = Before::kKept);

    // Puts back what the last settle() left; false when nothing had the name then, as now again.
    // Remains to be settled. Only when isPending().
    bool restore();

    // From now on, what is there is what restore() would put back.
    void settle();

private:
    SwitchedFiles(std::string path, bool isFolder);

    void refuseOther() const;
    void refuseFurther(const std::vector<std::string>& names) const;
    os::File openState() const;
    bool lock(double seconds);
    void removeLeftovers() const;
    bool isThere() const;
    std::optional<std::string> folderInUse(const std::string& link) const;
    std::string writeFolder(const std::vector<SwitchedFile>& files) const;
    void keepBefore() const;
    void put() const;
    std::string inState(const std::string& name) const;

    std::string path_;       // of the file or the link
    std::string stateName_;  // ".www.fstore"
    std::string state_;      // its path
    bool isFolder_ = false;
    os::File lock_;  // none on a file system that is read-only
};

}  // namespace fstore

#endif  // LIB_BASE_SWITCHED_FILES_H
