#include "tests/crash/tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

namespace crash {
namespace {

void require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void readFolder(int parent, const char* name, const std::string& path, Tree& tree);

void readEntry(int folder, const dirent& entry, const std::string& path, Tree& tree) {
    if (entry.d_type == DT_DIR) {
        tree[path].folder = true;
        readFolder(folder, entry.d_name, path + "/", tree);
        return;
    }
    const int fd = ::openat(folder, entry.d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    require(fd >= 0, path);
    std::string& bytes = tree[path].bytes;
    char buffer[8192];
    for (ssize_t got = 0; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
        bytes.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
}

// Calls `visit` with the descriptor of the folder and each entry but the dots.
void forEachEntry(int parent, const char* name,
                  const std::function<void(int, const dirent&)>& visit) {
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(fd >= 0, name);
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::fdopendir(fd), ::closedir);
    require(stream != nullptr, name);
    while (const dirent* const entry = ::readdir(stream.get())) {
        const std::string_view found = entry->d_name;
        if (found != "." && found != "..") {
            visit(fd, *entry);
        }
    }
}

void readFolder(int parent, const char* name, const std::string& path, Tree& tree) {
    forEachEntry(parent, name, [&](int folder, const dirent& entry) {
        readEntry(folder, entry, path + entry.d_name, tree);
    });
}

enum class Folders { kGo, kStay };

void clearFolder(int parent, const char* name, Folders folders) {
    std::vector<std::pair<std::string, int>> entries;  // with the flags to remove each
    forEachEntry(parent, name, [&](int folder, const dirent& entry) {
        const bool isFolder = entry.d_type == DT_DIR;
        if (isFolder) {
            clearFolder(folder, entry.d_name, folders);
        }
        if (!isFolder || folders == Folders::kGo) {
            entries.emplace_back(entry.d_name, isFolder ? AT_REMOVEDIR : 0);
        }
    });
    if (entries.empty()) {
        return;
    }
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    require(fd >= 0, name);
    for (const auto& [entry, flags] : entries) {
        require(::unlinkat(fd, entry.c_str(), flags) == 0, entry);
    }
    ::close(fd);
}

void make(const std::string& path, const Node& node) {
    if (node.folder) {
        require(::mkdir(path.c_str(), 0750) == 0, path);
        return;
    }
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    require(fd >= 0, path);
    const ssize_t stored = ::write(fd, node.bytes.data(), node.bytes.size());
    require(stored == static_cast<ssize_t>(node.bytes.size()), path);
    ::close(fd);
}

std::string shown(const std::string& bytes) {
    constexpr std::size_t kMost = 160;
    std::string text = "\"";
    for (const char c : bytes.substr(0, kMost)) {
        if (c == '\n') {
            text += "\\n";
        } else {
            text += c < 0x20 || c > 0x7e ? '?' : c;
        }
    }
    return text + (bytes.size() > kMost ? "\"..." : "\"");
}

std::string folderForScratch() {
    constexpr const char* kMemory = "/dev/shm";
    if (::access(kMemory, W_OK | X_OK) == 0) {
        return kMemory;
    }
    const char* const base = std::getenv("TMPDIR");
    return base != nullptr && *base != '\0' ? base : std::filesystem::current_path().string();
}

}  // namespace

std::uint64_t hashOf(const Tree& tree) {
    std::uint64_t hash = 0xcbf29ce484222325;
    const auto take = [&](const std::string& text) {
        hash = (hash ^ std::hash<std::string>()(text)) * 0x9e3779b97f4a7c15;
        hash ^= hash >> 29;
    };
    for (const auto& [path, node] : tree) {
        take(path);
        take(node.folder ? "/" : "=" + node.bytes);
    }
    return hash;
}

std::string describe(const Tree& tree) {
    std::string text;
    for (const auto& [path, node] : tree) {
        text += "    " + path;
        text += node.folder ? "/" : " (" + std::to_string(node.bytes.size()) + ") ";
        text += (node.folder ? "" : shown(node.bytes)) + "\n";
    }
    return text;
}

Tree readCurrentFolder() {
    Tree tree;
    readFolder(AT_FDCWD, ".", "", tree);
    return tree;
}

Tree readBelow(const std::string& folder) {
    Tree tree;
    readFolder(AT_FDCWD, folder.c_str(), folder + "/", tree);
    return tree;
}

void clearCurrentFolder() {
    clearBelow(".");
}

void clearBelow(const std::string& folder) {
    clearFolder(AT_FDCWD, folder.c_str(), Folders::kGo);
}

void clearFiles(const std::string& folder) {
    clearFolder(AT_FDCWD, folder.c_str(), Folders::kStay);
}

void writeCurrentFolder(const Tree& tree) {
    changeCurrentFolder({}, tree);
}

void changeCurrentFolder(const Tree& from, const Tree& to) {
    const auto isIn = [](const Tree& tree, const Tree::value_type& entry) {
        const auto found = tree.find(entry.first);
        return found != tree.end() && found->second == entry.second;
    };
    for (auto entry = from.rbegin(); entry != from.rend(); ++entry) {
        if (!isIn(to, *entry)) {
            const int flags = entry->second.folder ? AT_REMOVEDIR : 0;
            require(::unlinkat(AT_FDCWD, entry->first.c_str(), flags) == 0, entry->first);
        }
    }
    for (const auto& entry : to) {
        if (!isIn(from, entry)) {
            make(entry.first, entry.second);
        }
    }
}

Scratch::Scratch()
    : before_(std::filesystem::current_path().string()),
      path_(folderForScratch() + "/test-XXXXXX") {
    require(::mkdtemp(path_.data()) != nullptr, path_);
    std::filesystem::current_path(path_);
}

Scratch::~Scratch() {
    std::error_code ignored;  // a leftover in memory is no reason to fail
    std::filesystem::current_path(before_, ignored);
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace crash
