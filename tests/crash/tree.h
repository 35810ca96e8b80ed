// Files and folders as values: what stands in the current folder, and how to make it
// stand there. Fast, and not through the file-system seam.
#ifndef TESTS_CRASH_TREE_H
#define TESTS_CRASH_TREE_H

#include <cstdint>
#include <map>
#include <string>

namespace crash {

struct Node {
    bool folder = false;
    std::string bytes;

    bool operator==(const Node&) const = default;
};

// By path relative to the current folder, without "./": "db/keys/a.dsc". A folder
// stands before what is in it.
using Tree = std::map<std::string, Node>;

std::uint64_t hashOf(const Tree& tree);
std::string describe(const Tree& tree);  // a line for each, long and binary content shown short

// Files and folders only: a link or a FIFO is an error.
Tree readCurrentFolder();
Tree readBelow(const std::string& folder);  // with paths as above

void clearCurrentFolder();
void clearBelow(const std::string& folder);
void clearFiles(const std::string& folder);  // all below it but the folders
void writeCurrentFolder(const Tree& tree);   // into an empty one

// Makes what differs, where `from` is what stands there.
void changeCurrentFolder(const Tree& from, const Tree& to);

// An empty folder in memory where the system has one (/dev/shm), else under $TMPDIR or
// where the program runs; it is the current one while this lives.
class Scratch {
public:
    Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch();

private:
    std::string before_;
    std::string path_;
};

}  // namespace crash

#endif  // TESTS_CRASH_TREE_H
