// What does the C library cost, beside the proxies and beside its system calls alone?
//
//     library_bench [--quick] FOLDER
//
// FOLDER must exist. Needs 2,100 descriptors. Prints lines as the contest does. "proxies" is a
// program that hosts the store's modules itself and reads the same records through its proxies,
// with the lock's two calls around each read; "calls" makes the system calls of the library's read
// and nothing else. Neither compares a body with its digest, which the library does for each
// record.

#include <fcntl.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/contest/contender.h"
#include "bench/contest/rounds.h"
#include "capi/filestore.h"
#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "host/store_host.h"
#include "os/base.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kRecords = 100;
constexpr int kHandles = 1000;

struct Sizes {
    int rounds;
    int reads;     // of a round
    double spell;  // seconds of reading by several
};
constexpr Sizes kFull{40, 200, 1.0};
constexpr Sizes kQuick{12, 100, 0.3};

void must(filestore_status status, const filestore_error& error) {
    if (status != FILESTORE_OK) {
        throw std::runtime_error(error.message);
    }
}

std::string addressOf(std::size_t index) {
    return "keys/" + nameOfRecord(index % kRecords);
}

// A database of the library's: with the password or, given one, with the key that another was
// unlocked with.
class Library {
public:
    explicit Library(const fs::path& folder, const std::string& key = {}) {
        filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
        options.flags = key.empty() ? FILESTORE_CREATE : 0;
        filestore_key secret = FILESTORE_KEY_INIT;
        secret.kind = key.empty() ? FILESTORE_PASSWORD : FILESTORE_RAW_KEY;
        secret.bytes = key.empty() ? kPassword : key.c_str();
        secret.length = std::strlen(static_cast<const char*>(secret.bytes));
        must(filestore_open(folder.c_str(), &options, &db_, &error_), error_);
        must(filestore_unlock(db_, &secret, nullptr, &error_), error_);
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() { filestore_close(db_); }

    void fill() {
        for (std::size_t index = 0; index < kRecords; ++index) {
            put(makeRecord(index, 1));
        }
    }

    void read(std::size_t index) {
        filestore_record* record = nullptr;
        filestore_error error = FILESTORE_ERROR_INIT;
        must(filestore_get(db_, addressOf(index).c_str(), 0, &record, &error), error);
        std::size_t size = 0;
        const bool whole = filestore_record_body(record, &size) != nullptr && size == kBodySize;
        filestore_record_free(record);
        require(whole, "library: a record is read in part");
    }

    std::string key() {
        void* key = nullptr;
        std::size_t length = 0;
        must(filestore_copy_key(db_, &key, &length, &error_), error_);
        std::string copy(static_cast<const char*>(key), length);
        filestore_free(key);
        return copy;
    }

private:
    void put(const Record& source) {
        filestore_record* record = nullptr;
        must(filestore_record_new(("keys/" + source.name).c_str(), &record, &error_), error_);
        must(filestore_record_set_body(record, source.body.data(), source.body.size(), 0, &error_),
             error_);
        set(record, FILESTORE_TEXT, 0x8001, source.subject.data(), source.subject.size(), 0);
        set(record, FILESTORE_NUMBER, 0x8002, &source.number, sizeof source.number, 0);
        set(record, FILESTORE_BINARY, 0x8003, source.secret.data(), source.secret.size(),
            FILESTORE_ENCRYPTED);
        must(filestore_put(db_, record, 0, &error_), error_);
        filestore_record_free(record);
    }

    void set(filestore_record* record, std::uint32_t type, std::uint32_t id, const void* bytes,
             std::size_t size, std::uint32_t flags) {
        must(filestore_record_set_attribute(record, type, id, bytes, size, flags, &error_), error_);
    }

    filestore_db* db_ = nullptr;
    filestore_error error_ = FILESTORE_ERROR_INIT;
};

// The lock around a read, on a descriptor of its own.
class Lock {
public:
    explicit Lock(const fs::path& folder)
        : folder_(os::openFile(folder.c_str(), O_RDONLY | O_DIRECTORY)) {
        require(static_cast<bool>(folder_), "the folder does not open");
    }

    int folder() const { return folder_.get(); }
    void take() const {
        require(os::lockFile(folder_, os::LockKind::kShared, 0) == os::Locked::kYes, "no lock");
    }
    void release() const { require(os::unlockFile(folder_), "no lock"); }

private:
    os::File folder_;
};

// The store's own proxies, in the process's folder.
class Proxies {
public:
    Proxies(const fs::path& folder, std::string key) : lock_(folder), key_(std::move(key)) {
        fs::current_path(folder);
    }

    void open() { require(service_.open(key_.c_str()) == kOk, "proxies: no open"); }
    void close() { (void)service_.close(); }

    // All of it copied, as the library hands out a copy.
    void read(std::size_t index) {
        lock_.take();
        aFileStore record;
        require(record.setFolderName("./db/keys") == kOk &&
                    record.setName(nameOfRecord(index % kRecords).c_str()) == kOk &&
                    record.read() == kOk && record.decrypt() == kOk,
                "proxies: no read");
        std::vector<std::vector<unsigned char>> attributes(record.getAttrCount());
        for (unsigned int i = 0; i < attributes.size(); ++i) {
            attributes[i].assign(record.getAttr(i), record.getAttr(i) + record.getAttrSize(i));
        }
        const std::vector<unsigned char> body(record.getBody(),
                                              record.getBody() + record.getBodySize());
        require(body.size() == kBodySize, "proxies: a record is read in part");
        lock_.release();
    }

private:
    Lock lock_;
    std::string key_;
    aFileStoreSrv service_;
};

// The library's system calls for a read, and nothing else.
class Calls {
public:
    explicit Calls(const fs::path& folder) : lock_(folder) {
        for (std::size_t index = 0; index < kRecords; ++index) {
            const std::string descriptor = "./db/keys/" + nameOfRecord(index) + ".dsc";
            std::string word;
            std::ifstream text(folder / descriptor);
            text >> word >> word >> word;  // the name of the body is the third word
            files_.push_back({descriptor, "./db/keys/" + word});
        }
    }

    void read(std::size_t index) {
        const Files& files = files_[index % kRecords];
        const os::Base base(lock_.folder());
        lock_.take();
        struct stat status {};
        for (const char* const path : {"./db", files.descriptor.c_str()}) {
            require(os::lstat(path, &status) == 0, "calls: no folder");
        }
        load(files.descriptor);
        load(files.body);
        lock_.release();
    }

private:
    struct Files {
        std::string descriptor, body;
    };

    static void load(const std::string& path) {
        const int fd =
            os::open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0);
        char bytes[4096];
        const ssize_t size = fd < 0 ? -1 : os::pread(fd, bytes, sizeof bytes, 0);
        require(size > 0 && static_cast<std::size_t>(size) < sizeof bytes && os::close(fd) == 0,
                "calls: a file is not read");
    }

    Lock lock_;
    std::vector<Files> files_;
};

using Reader = std::function<void(std::size_t)>;

// Reads within a spell.
std::size_t readsIn(double seconds, const Reader& read) {
    const auto start = Clock::now();
    std::size_t done = 0;
    while (microseconds(start) < seconds * 1e6) {
        read(done++);
    }
    return done;
}

// How many times as much as the first reader does alone all do together.
double gainOfThreads(double seconds, const std::vector<Reader>& readers) {
    const std::size_t alone = readsIn(seconds, readers[0]);
    std::atomic<std::size_t> together{0};
    std::vector<std::thread> threads;
    for (const Reader& read : readers) {
        threads.emplace_back([&] { together += readsIn(seconds, read); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return static_cast<double>(together) / static_cast<double>(alone);
}

// What a process of its own says: the reads that it did.
class Process {
public:
    explicit Process(const std::string& command) : output_(::popen(command.c_str(), "r")) {
        require(output_ != nullptr, "no process");
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process() { ::pclose(output_); }

    double reads() {
        double value = 0;
        require(std::fscanf(output_, "%lf", &value) == 1, "a process failed");
        return value;
    }

private:
    std::FILE* output_;
};

class Bench {
public:
    Bench(const fs::path& root, const Sizes& sizes, std::string program)
        : sizes_(sizes),
          program_(std::move(program)),
          folders_{root / "one", root / "two"},
          library_(folders_[0]) {
        library_.fill();
        key_ = library_.key();
        fs::copy(folders_[0], folders_[1], fs::copy_options::recursive);
        // What changed lately is looked at more often.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }

    void run() {
        reads();
        opens();
        threads();
        processes();
        memory();
    }

private:
    Reader libraryReader(Library& library) const {
        return [&library](std::size_t index) { library.read(index); };
    }
    static Reader callsReader(const std::shared_ptr<Calls>& calls) {
        return [calls](std::size_t index) { calls->read(index); };
    }
    Reader callsReader(int database) const {
        return callsReader(std::make_shared<Calls>(folders_[database]));
    }

    double medianRead(const Reader& read) const {
        std::vector<double> taken;
        for (int i = 0; i < sizes_.reads; ++i) {
            const auto start = Clock::now();
            read(static_cast<std::size_t>(i));
            taken.push_back(microseconds(start));
        }
        return medianOf(taken);
    }

    void reads() {
        Proxies proxies(folders_[0], key_);
        proxies.open();
        const std::vector<std::pair<std::string, Reader>> readers = {
            {"proxies", [&](std::size_t index) { proxies.read(index); }},
            {"library", libraryReader(library_)},
            {"calls", callsReader(0)}};
        for (int round = -1; round < sizes_.rounds; ++round) {  // the first one warms up
            for (std::size_t turn = 0; turn < readers.size(); ++turn) {
                const auto& [who, read] =
                    readers[(turn + static_cast<std::size_t>(round + 1)) % readers.size()];
                const double taken = medianRead(read);
                if (round >= 0) {
                    report("read by the library", who, round, taken);
                }
            }
        }
        proxies.close();
    }

    void opens() {
        Proxies proxies(folders_[0], key_);
        for (int round = 0; round < sizes_.rounds; ++round) {
            for (int turn = 0; turn < 2; ++turn) {
                const bool isLibrary = (round + turn) % 2 != 0;
                const double taken = isLibrary ? openByLibrary() : openBy(proxies);
                report("open by the library", isLibrary ? "library" : "proxies", round, taken);
            }
        }
    }
    double openByLibrary() const {
        const auto start = Clock::now();
        const Library opened(folders_[0], key_);
        return microseconds(start);
    }
    static double openBy(Proxies& proxies) {
        const auto start = Clock::now();
        proxies.open();
        const double taken = microseconds(start);
        proxies.close();
        return taken;
    }

    void threads() {
        Library other(folders_[1], key_);
        for (int round = 0; round < 5; ++round) {
            const Reader one = libraryReader(library_);
            report("two threads on one database", "library", round,
                   gainOfThreads(sizes_.spell, {one, one}));
            report("two threads on one database", "calls", round,
                   gainOfThreads(sizes_.spell, {callsReader(0), callsReader(0)}));
            report("two threads on two databases", "library", round,
                   gainOfThreads(sizes_.spell, {one, libraryReader(other)}));
            report("two threads on two databases", "calls", round,
                   gainOfThreads(sizes_.spell, {callsReader(0), callsReader(1)}));
        }
    }

    void processes() {
        for (int round = 0; round < 5; ++round) {
            for (const char* const who : {"library", "calls"}) {
                const std::string command = program_ + " --reads " + who + " '" +
                                            folders_[0].string() + "' '" + key_ + "' " +
                                            std::to_string(sizes_.spell);
                const double alone = Process(command).reads();
                Process one(command);
                Process two(command);
                report("two processes", who, round, (one.reads() + two.reads()) / alone);
            }
        }
    }

    // As the system counts it, of databases that are unlocked and have been read from.
    void memory() {
        std::vector<std::unique_ptr<Library>> open;
        const double before = residentKib();
        for (int i = 0; i < kHandles; ++i) {
            open.push_back(std::make_unique<Library>(folders_[i % 2], key_));
            open.back()->read(0);
        }
        report("memory of an open database", "library", 0, (residentKib() - before) / kHandles);
    }

    static double residentKib() {
        std::ifstream status("/proc/self/status");
        std::string word;
        double value = 0;
        while (status >> word && word != "VmRSS:") {
        }
        require(static_cast<bool>(status >> value), "the system does not say what memory is used");
        return value;
    }

    const Sizes sizes_;
    const std::string program_;
    const fs::path folders_[2];
    Library library_;
    std::string key_;
};

// What Process runs.
void readAsTold(char** arguments) {
    const fs::path folder = arguments[1];
    const double seconds = std::stod(arguments[3]);
    std::size_t done = 0;
    if (std::strcmp(arguments[0], "library") == 0) {
        Library library(folder, arguments[2]);
        done = readsIn(seconds, [&](std::size_t index) { library.read(index); });
    } else {
        Calls calls(folder);
        done = readsIn(seconds, [&](std::size_t index) { calls.read(index); });
    }
    std::printf("%zu\n", done);
}

void measure(const char* program, const char* folder, const Sizes& sizes) {
    StoreHost host;
    const Result started = host.start();
    require(started.ok(), started.message.c_str());
    Bench(fs::absolute(folder), sizes, fs::absolute(program)).run();
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc == 3 && std::strcmp(argv[1], "--quick") == 0;
    const bool reads = argc == 6 && std::strcmp(argv[1], "--reads") == 0;
    if (argc != 2 && !quick && !reads) {
        std::fprintf(stderr, "usage: %s [--quick] FOLDER\n", argv[0]);
        return 2;
    }
    try {
        if (reads) {
            readAsTold(argv + 2);
        } else {
            measure(argv[0], argv[argc - 1], quick ? kQuick : kFull);
        }
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
    return 0;
}
