// The store's own calls and nothing else: what it asks of the system for each operation,
// in its order and with files of its sizes, without framework, cipher, parsing and locks.
//
// Beside the floor it tells how much the arrangement of the calls gains or costs; beside
// the store, what everything else costs.
#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "bench/contest/files.h"
#include "os/fs.h"

namespace {

constexpr const char* kFolder = "./db/keys";

// What the store's files have beyond the bytes given: the frame of a message, and the
// text of a descriptor.
constexpr std::size_t kFrame = 29;
constexpr std::size_t kDescriptorSize = 302;
constexpr std::string_view kHead = "11000003 00000000 ";
constexpr std::size_t kBodyNameSize = 8;

// Where the store reads a file of less, the system is not asked for the size.
constexpr std::size_t kShort = 4096;

std::string pathOf(const std::string& name) {
    return std::string(kFolder) + "/" + name;
}

std::string descriptorOf(const std::string& record) {
    return pathOf(record) + ".dsc";
}

void syncClose(int fd) {
    require(os::fsync(fd) == 0 && os::close(fd) == 0, "calls: nothing becomes durable");
}

// A new file, written but not yet synced.
int createFile(const std::string& path, std::string_view bytes) {
    const int fd = os::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    require(
        fd >= 0 && os::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
        "calls: no file");
    return fd;
}

// The bytes of a file; nothing when there is none.
std::string_view load(const std::string& path, std::vector<char>& bytes) {
    const int fd = os::open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC, 0);
    if (fd < 0) {
        require(errno == ENOENT, "calls: a file does not open");
        return {};
    }
    bytes.resize(kShort);
    const ssize_t size = os::pread(fd, bytes.data(), bytes.size(), 0);
    require(size > 0 && static_cast<std::size_t>(size) < kShort && os::close(fd) == 0,
            "calls: a file is not read");
    return {bytes.data(), static_cast<std::size_t>(size)};
}

std::string bodyNamedBy(std::string_view descriptor) {
    return std::string(descriptor.substr(kHead.size(), kBodyNameSize));
}

class Calls : public Contender {
public:
    void create() override {
        require(os::mkdir("./db", 0750) == 0 && os::mkdir(kFolder, 0750) == 0, "calls: no folder");
    }

    void put(const Record& record) override {
        const std::string descriptor = descriptorOf(record.name);
        const std::string body = freshName();
        const int bodyFile = createFile(pathOf(body), bodyBytes_);
        (void)os::startWriteback(bodyFile);
        const int file = createFile(descriptor + ".$n$", textNaming(body));
        (void)os::startWriteback(file);
        syncClose(bodyFile);
        syncClose(file);
        if (exists(descriptor)) {
            renameFile(descriptor, descriptor + ".$o$");
        }
        renameFile(descriptor + ".$n$", descriptor);
        syncFolder(kFolder);
        removeWithBody(descriptor + ".$o$");
    }

    void remove(const std::string& name) override {
        const std::string descriptor = descriptorOf(name);
        renameFile(descriptor, descriptor + ".$o$");
        renameFile(descriptor + ".$o$", descriptor + ".$d$");
        syncFolder(kFolder);
        removeWithBody(descriptor + ".$d$");
    }

    void read(const std::string& name, Record& into) override {
        const std::string body = bodyNamedBy(load(descriptorOf(name), bytes_));
        const std::string_view contents = load(pathOf(body), bytes_);
        into.body.assign(contents.begin(), contents.end() - kFrame);
        into.secret.resize(kSecretSize);
    }

    std::size_t list() override {
        DIR* const folder = os::opendir(kFolder);
        require(folder != nullptr, "calls: no folder");
        std::size_t count = 0;
        while (const dirent* const entry = os::readdir(folder)) {
            count += std::string_view(entry->d_name).ends_with(".dsc") ? 1 : 0;
        }
        os::closedir(folder);
        return count;
    }

    void fill(std::size_t first, std::size_t end) override {
        for (std::size_t index = first; index < end; ++index) {
            const std::string body = freshName();
            const int bodyFile = createFile(pathOf(body), bodyBytes_);
            const int file = createFile(descriptorOf(nameOfRecord(index)), textNaming(body));
            require(os::close(bodyFile) == 0 && os::close(file) == 0, "calls: no files");
        }
        syncDisk();
    }

    void open() override {}

private:
    void removeWithBody(const std::string& descriptor) {
        const std::string_view text = load(descriptor, bytes_);
        if (text.empty()) {
            return;
        }
        const std::string body = bodyNamedBy(text);
        removeFile(descriptor);
        removeFile(pathOf(body));
    }

    std::string freshName() {
        std::array<char, kBodyNameSize + 1> name{};
        do {
            std::snprintf(name.data(), name.size(), "%08x", nextNumber_++);
        } while (exists(pathOf(name.data())));
        return name.data();
    }

    static std::string textNaming(const std::string& body) {
        std::string text = std::string(kHead) + body + '\n';
        text.resize(kDescriptorSize, '-');
        return text;
    }

    const std::string bodyBytes_ = std::string(kBodySize + kFrame, '-');
    std::vector<char> bytes_;
    unsigned int nextNumber_ = 1;
};

}  // namespace

std::unique_ptr<Contender> makeCalls() {
    return std::make_unique<Calls>();
}
