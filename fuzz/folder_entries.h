// A folder of files, links, FIFOs and folders, made from an input: where a database's folder
// should be, with the names that mean something to the store, and with any others.
#ifndef FUZZ_FOLDER_ENTRIES_H
#define FUZZ_FOLDER_ENTRIES_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz/input.h"

inline void writeFile(const std::string& path, const std::string& bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0) {
        require(::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
        ::close(fd);
    }
}

// A name that means something to the store, or any other.
inline std::string takeName(Input& input) {
    static const std::vector<std::string> kNames{
        "a.dsc",           "a.dsc.$o$", "a.dsc.$n$",     "a.dsc.$d$",    "b.dsc",
        "b.dsc.$o$",       "00000001",  "00000002",      "00000003",     "00000004",
        "c.dsc",           ".dsc",      "a.dsc.$o$.$o$", "00000001.dsc", "00000001.dsc.$o$",
        "00000001.dsc.$n$"};
    const std::size_t choice = input.below(kNames.size() + 4);
    return choice < kNames.size() ? kNames[choice] : input.bytes();
}

// Makes one entry of `folder`, which is "./db/" and one name. Entries that the system refuses are
// left out.
inline void makeEntry(Input& input, const std::string& folder) {
    static const std::vector<std::string> kTargets{"../../outside/file", "../../outside", "a.dsc",
                                                   "00000001",           "nowhere",       "."};
    const std::size_t kind = input.below(8);
    const std::string path = folder + "/" + takeName(input);
    if (path.find('\0') != std::string::npos || path.find("..") != std::string::npos) {
        return;
    }
    switch (kind) {
        case 0:
            (void)!::symlink(kTargets[input.below(kTargets.size())].c_str(), path.c_str());
            break;
        case 1:
            (void)::mkfifo(path.c_str(), 0666);
            break;
        case 2:
            (void)::mkdir(path.c_str(), 0777);
            break;
        case 3: {  // a descriptor with a body, most often
            static const std::vector<std::string> kBodies{
                "00000001", "00000002", "a.dsc", "../../outside/file", "b.dsc.$o$", ""};
            writeFile(path, "10000003 00000000 " + kBodies[input.below(kBodies.size())] + "\n" +
                                input.bytes());
            break;
        }
        default:
            writeFile(path, input.bytes());
            break;
    }
}

#endif  // FUZZ_FOLDER_ENTRIES_H
