// Any descriptor file: what a record reads is what a loop of fgets() would find line
// by line, and what it has read it writes in a form that reads the same.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "format/dsc_text.h"
#include "store/file_store.h"

namespace {

using Attrs = std::vector<FileStore::Attr>;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// A file in memory where there is such a place, to be filled anew. It has a name of its own:
// records read no file through a link, and those of /proc/self/fd are links.
class Scratch {
public:
    Scratch() : path_(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") {
        path_ += "/dsc_file_fuzz-XXXXXX";
        fd_ = ::mkstemp(path_.data());
        require(fd_ >= 0);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    ~Scratch() {
        (void)::unlink(path_.c_str());
        (void)::close(fd_);
    }

    void fill(const void* data, std::size_t size) const {
        require(::ftruncate(fd_, 0) == 0);
        require(::pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size));
    }
    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
    int fd_ = -1;
};

// The next line as a loop of fgets() reads it, into a buffer that grows by 1024 bytes
// until the line ends. False at the end of the file; a line that begins with a NUL
// byte is empty.
bool readLine(std::FILE* file, std::string& line) {
    constexpr std::size_t kStep = 1024;
    std::string buffer(kStep, '\0');
    std::size_t length = 0;
    while (std::fgets(buffer.data() + length, static_cast<int>(buffer.size() - length), file) !=
           nullptr) {
        length = std::strlen(buffer.c_str());
        if (length == 0 || buffer[length - 1] == '\n') {
            line = buffer.substr(0, length);
            return true;
        }
        buffer.resize(buffer.size() + kStep);
    }
    line = buffer.substr(0, length);
    return length != 0;
}

Status readSlowly(const char* path, std::vector<DscLine>& lines) {
    std::FILE* const file = std::fopen(path, "rt");
    require(file != nullptr);
    Status status = kOk;
    for (std::string line; status == kOk && readLine(file, line);) {
        if (line.empty()) {
            status = kMalformed;
            break;
        }
        if (line.back() == '\n') {
            line.pop_back();
        }
        const std::size_t first = line.find_first_not_of(" \t\n\v\f\r");
        if (first != std::string::npos && line[first] != '!') {
            DscLine value;
            status = parseDscLine(line.c_str(), value);
            if (status == kOk) {
                lines.push_back(value);
            }
        }
    }
    (void)std::fclose(file);
    return status;
}

std::string dataOf(const FileStore::Attr& attr) {
    return {reinterpret_cast<const char*>(attr.data), attr.size};
}

void requireSame(const Attrs& attrs, const std::vector<DscLine>& lines) {
    require(attrs.size() == lines.size());
    for (std::size_t i = 0; i < attrs.size(); ++i) {
        require(attrs[i].type == lines[i].type && attrs[i].id == lines[i].id &&
                attrs[i].pending == 0 && dataOf(attrs[i]) == lines[i].data);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Scratch file;
    file.fill(data, size);
    Attrs attrs;
    std::vector<DscLine> lines;
    const Status status = FileStore::readDSC(file.path(), attrs);
    require(status == readSlowly(file.path(), lines));
    requireSame(attrs, lines);

    std::string text;
    for (const FileStore::Attr& attr : attrs) {
        require(appendDscLine(attr.type, attr.id, attr.data, attr.size, text) == kOk);
        text += '\n';
    }
    file.fill(text.data(), text.size());
    Attrs again;
    require(FileStore::readDSC(file.path(), again) == kOk);
    requireSame(again, lines);
    return 0;
}
