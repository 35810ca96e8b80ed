// Real folders for tests: a scoped temporary directory and plain questions
// about files. Nothing here goes through the file-system seam, so a test looks
// at the disk while faults are planned. Failures throw and fail the test.
#ifndef TESTS_SUPPORT_TEMP_DIR_H
#define TESTS_SUPPORT_TEMP_DIR_H

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <system_error>
#include <vector>

namespace support {

// An empty directory with a name of its own, under $TMPDIR or where the program
// runs (ctest: the build tree); removed with all that is in it.
class TempDir {
public:
    TempDir() {
        const char* const base = std::getenv("TMPDIR");
        std::string name = base != nullptr && *base != '\0'
                               ? std::string(base)
                               : std::filesystem::current_path().string();
        name += "/test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        path_ = std::filesystem::canonical(name).string();
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;  // a leftover in the build tree is no reason to fail
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// The current directory of the process for as long as this lives.
class WorkingDir {
public:
    explicit WorkingDir(const std::string& path) : before_(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    WorkingDir(const WorkingDir&) = delete;
    WorkingDir& operator=(const WorkingDir&) = delete;
    ~WorkingDir() {
        std::error_code ignored;  // the folder may be gone; the next test tells
        std::filesystem::current_path(before_, ignored);
    }

private:
    std::filesystem::path before_;
};

// A temporary directory that is also the current one: for code whose paths
// begin with "./".
class TempWorkingDir : public TempDir {
    WorkingDir entered_{path()};
};

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file << bytes;
    file.close();
}

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Everything below `root`: relative path to content. A folder reads "<folder>",
// a symbolic link "-> target", what else there may be "<special>"; without a database's lock
// file, which says who locked last. The map of a root that does not exist is empty.
inline std::map<std::string, std::string> tree(const std::string& root) {
    namespace fs = std::filesystem;
    std::map<std::string, std::string> entries;
    if (!fs::exists(root)) {
        return entries;
    }
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
        if (entry.path().filename() == "db.lock") {
            continue;
        }
        std::string& content = entries[entry.path().lexically_relative(root).string()];
        if (entry.is_symlink()) {
            content = "-> " + fs::read_symlink(entry.path()).string();
        } else if (entry.is_directory()) {
            content = "<folder>";
        } else {
            content = entry.is_regular_file() ? readFile(entry.path().string()) : "<special>";
        }
    }
    return entries;
}

// The names of all below a folder, in order.
inline std::vector<std::string> namesIn(const TempDir& dir) {
    std::vector<std::string> names;
    for (const auto& [name, content] : tree(dir.path())) {
        names.push_back(name);
    }
    return names;
}

}  // namespace support

#endif  // TESTS_SUPPORT_TEMP_DIR_H
