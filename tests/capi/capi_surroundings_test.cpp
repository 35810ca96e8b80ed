// What the process and the system do to a program while it uses databases: limits, signals, missing
// descriptors, and somebody at work on the same folders.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capi/filestore.h"
#include "tests/capi/support.h"
#include "tests/support/temp_dir.h"

namespace capi_test {
namespace {

using support::TempDir;
using testing::HasSubstr;
namespace fs = std::filesystem;

const std::string kPassword = "correct horse";

// What a child process that runs work() says: empty when all is well, and else what is not. Limits
// and signals are the child's alone.
std::string inChild(const std::function<void()>& work) {
    int said[2];
    if (::pipe(said) != 0) {
        return "no pipe";
    }
    const pid_t child = ::fork();
    if (child == 0) {
        std::string trouble;
        try {
            work();
        } catch (const std::exception& failure) {
            trouble = failure.what();
        }
        (void)!::write(said[1], trouble.data(), trouble.size());
        ::_exit(trouble.empty() ? 0 : 1);
    }
    ::close(said[1]);
    std::string heard(4096, '\0');
    const ssize_t size = ::read(said[0], heard.data(), heard.size());
    heard.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    ::close(said[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        return "killed by signal " + std::to_string(WTERMSIG(status));
    }
    return heard;
}

void expect(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

void setLimit(decltype(RLIMIT_FSIZE) which, rlim_t most) {
    rlimit limit{};
    expect(::getrlimit(which, &limit) == 0, "no limit");
    limit.rlim_cur = most;
    expect(::setrlimit(which, &limit) == 0, "no limit");
}

// Longer than changes of a folder can have the same time: what is known of it is then used.
void settle() {
    std::this_thread::sleep_for(std::chrono::milliseconds(80));
}

std::string messageOfGet(const Db& db, const std::string& address) {
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_record* record = nullptr;
    (void)filestore_get(db.get(), address.c_str(), 0, &record, &error);
    const Record given(record);
    return error.message;
}

class CapiSurroundingsTest : public testing::Test {
protected:
    // The body file of a record that is the only one of its folder.
    std::string bodyFileIn(const std::string& folder) const {
        for (const auto& entry : fs::directory_iterator(folder_ / ("db/" + folder))) {
            if (entry.path().extension() != ".dsc") {
                return entry.path();
            }
        }
        return {};
    }

    TempDir folder_;
    Db db_ = openWith(folder_.path(), kPassword, FILESTORE_CREATE);
};

TEST_F(CapiSurroundingsTest, ALinkInPlaceOfAFolderIsSeenAfterAnyNumberOfReads) {
    put(db_, "keys/a", "inside");
    settle();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ("inside", bodyOf(get(db_, "keys/a")));
    }
    const std::string keys = folder_ / "db/keys", elsewhere = folder_ / "elsewhere";
    fs::rename(keys, elsewhere);
    fs::create_directory_symlink("../elsewhere", keys);
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(db_, "keys/a"));
    settle();
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(db_, "keys/a"));
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(db_, "keys/a"));
    fs::remove(keys);
    fs::rename(elsewhere, keys);
    EXPECT_EQ("inside", bodyOf(get(db_, "keys/a")));
}

TEST_F(CapiSurroundingsTest, AnotherDatabaseInTheSamePlaceNeedsItsOwnKey) {
    const TempDir other;
    put(openWith(other.path(), "another", FILESTORE_CREATE), "keys/a", "of the other");
    put(db_, "keys/a", "of the first");
    settle();
    EXPECT_EQ("of the first", bodyOf(get(db_, "keys/a")));
    const std::string db = folder_ / "db", aside = folder_ / "aside";
    fs::rename(db, aside);
    EXPECT_EQ(FILESTORE_MISSING, statusOfGet(db_, "keys/a"));
    fs::copy(other / "db", db, fs::copy_options::recursive);
    EXPECT_EQ(FILESTORE_NOT_OPEN, statusOfGet(db_, "keys/a"));
    settle();
    EXPECT_EQ(FILESTORE_NOT_OPEN, statusOfGet(db_, "keys/a"));
    EXPECT_EQ(FILESTORE_NOT_OPEN, statusOfPut(db_, "keys/b", "new"));
    fs::remove_all(db);
    fs::rename(aside, db);
    EXPECT_EQ("of the first", bodyOf(get(db_, "keys/a")));
}

TEST_F(CapiSurroundingsTest, WhatStandsInPlaceOfABodyIsNamed) {
    const struct {
        const char* name;
        std::function<void(const std::string&)> make;
    } rows[] = {
        {"a FIFO", [](const std::string& path) { ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600)); }},
        {"a folder", [](const std::string& path) { fs::create_directory(path); }},
        {"a link", [](const std::string& path) { fs::create_symlink("key.dsc", path); }},
        {"is missing", [](const std::string&) {}},
    };
    put(db_, "keys/a", "body");
    const std::string body = bodyFileIn("keys");
    fs::rename(body, folder_ / "kept");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        row.make(body);
        const std::string message = messageOfGet(db_, "keys/a");
        EXPECT_THAT(message, HasSubstr(row.name));
        EXPECT_THAT(message, HasSubstr(fs::path(body).filename().string()));
        fs::remove(body);
    }
    fs::rename(folder_ / "kept", body);
    EXPECT_EQ("body", bodyOf(get(db_, "keys/a")));
}

TEST_F(CapiSurroundingsTest, ALimitOfFileSizesIsAStatusAndKillsNobody) {
    put(db_, "keys/a", "old");
    EXPECT_EQ("", inChild([&] {
                  (void)std::signal(SIGXFSZ, SIG_DFL);
                  setLimit(RLIMIT_FSIZE, 4096);
                  expect(statusOfPut(db_, "keys/a", std::string(100'000, 'x')) == FILESTORE_IO,
                         "a put beyond the limit");
                  const std::string archive = folder_ / "archive";
                  expect(filestore_backup(db_.get(), archive.c_str(), 0, nullptr, nullptr) ==
                             FILESTORE_IO,
                         "a backup beyond the limit");
                  expect(bodyOf(get(db_, "keys/a")) == "old", "the record that is there");
                  sigset_t pending;
                  expect(::sigpending(&pending) == 0 && ::sigismember(&pending, SIGXFSZ) == 0,
                         "a signal is left behind");
              }));
    EXPECT_EQ("old", bodyOf(get(db_, "keys/a")));
    EXPECT_FALSE(fs::exists(folder_ / "archive"));
}

TEST_F(CapiSurroundingsTest, AReaderOfABackupThatGoesAwayKillsNobody) {
    const std::string fifo = folder_ / "fifo";
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    put(db_, "keys/a", std::string(200'000, 'x'));
    std::thread reader([&] { ::close(::open(fifo.c_str(), O_RDONLY)); });
    EXPECT_EQ("", inChild([&] {
                  (void)std::signal(SIGPIPE, SIG_DFL);
                  const filestore_status status = filestore_backup(
                      db_.get(), fifo.c_str(), FILESTORE_REPLACE, nullptr, nullptr);
                  expect(status == FILESTORE_IO || status == FILESTORE_INVALID,
                         "a backup that nobody reads: " + std::to_string(status));
              }));
    const int unblock = ::open(fifo.c_str(), O_RDWR | O_NONBLOCK);  // if the backup never opened it
    reader.join();
    ::close(unblock);
}

TEST_F(CapiSurroundingsTest, WorksWithoutStandardStreams) {
    put(db_, "keys/a", "old");
    EXPECT_EQ("", inChild([&] {
                  for (const int fd : {0, 1, 2}) {
                      ::close(fd);
                  }
                  const Db own = openWith(folder_.path(), kPassword);
                  put(own, "keys/b", "new");
                  expect(bodyOf(get(own, "keys/b")) == "new", "a record");
                  expect(bodyOf(get(db_, "keys/a")) == "old", "a record of the parent's handle");
              }));
    EXPECT_EQ("new", bodyOf(get(db_, "keys/b")));
}

#ifndef __SANITIZE_ADDRESS__  // built with its companion, which looks at objects through a pipe
TEST_F(CapiSurroundingsTest, WithoutFreeDescriptorsItFailsAndRecovers) {
    put(db_, "keys/a", "old");
    EXPECT_EQ("", inChild([&] {
                  expect(bodyOf(get(db_, "keys/a")) == "old", "before");
                  // One after the other until everything is possible: no state in between makes
                  // something else than a failure.
                  const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
                  ::close(next);
                  bool possible = false;
                  for (rlim_t most = static_cast<rlim_t>(next); !possible && most < 40U; ++most) {
                      setLimit(RLIMIT_NOFILE, most);
                      const filestore_status got = statusOfGet(db_, "keys/a");
                      const filestore_status done = statusOfPut(db_, "keys/b", "new");
                      const filestore_status found = [&] {
                          filestore_list* list = nullptr;
                          const filestore_status status =
                              filestore_find(db_.get(), nullptr, &list, nullptr);
                          filestore_list_free(list);
                          return status;
                      }();
                      possible =
                          got == FILESTORE_OK && done == FILESTORE_OK && found == FILESTORE_OK;
                      for (const filestore_status status : {got, done, found}) {
                          expect(status == FILESTORE_OK || status == FILESTORE_IO ||
                                     status == FILESTORE_PARTIAL,
                                 filestore_status_name(status));
                      }
                  }
                  expect(possible, "it works when there are descriptors again");
              }));
    EXPECT_EQ("new", bodyOf(get(db_, "keys/b")));
}
#endif

// A signal every millisecond whose handler makes calls end early.
TEST_F(CapiSurroundingsTest, SignalsInterruptNoCall) {
    EXPECT_EQ("", inChild([&] {
                  static std::atomic<int> signals{0};
                  struct sigaction action {};
                  action.sa_handler = [](int) { ++signals; };  // no SA_RESTART
                  expect(::sigaction(SIGALRM, &action, nullptr) == 0, "no handler");
                  const itimerval often{{0, 1000}, {0, 1000}};
                  expect(::setitimer(ITIMER_REAL, &often, nullptr) == 0, "no timer");
                  for (int i = 0; i < 100; ++i) {
                      const std::string body(static_cast<std::size_t>(i) * 1000, 'x');
                      put(db_, "keys/a", body);
                      expect(bodyOf(get(db_, "keys/a")) == body, "a record");
                  }
                  filestore_check_options options = FILESTORE_CHECK_OPTIONS_INIT;
                  options.flags = FILESTORE_CHECK_DEEP;
                  filestore_error error = FILESTORE_ERROR_INIT;
                  must(filestore_check(db_.get(), &options, nullptr, &error), error);
                  unlock(openWith(folder_.path(), kPassword), kPassword);
                  expect(signals > 10, "signals came");
              }));
}

TEST_F(CapiSurroundingsTest, AWaitMayBeWithoutEnd) {
    put(db_, "keys/a", "body", FILESTORE_PLAIN);
    for (const double seconds : {1e10, 1e300, std::numeric_limits<double>::infinity()}) {
        filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
        options.lock_seconds = seconds;
        filestore_db* handle = nullptr;
        ASSERT_EQ(FILESTORE_OK, filestore_open(folder_.path().c_str(), &options, &handle, nullptr));
        const Db patient(handle);
        const int holder = ::open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_EQ(0, ::flock(holder, LOCK_EX));
        std::thread release([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            ::close(holder);
        });
        EXPECT_EQ(FILESTORE_OK, statusOfGet(patient, "keys/a")) << seconds;
        release.join();
    }
}

// Also from inside of an operation: what another handle may do now is done, and what it may not is
// refused after its own time.
TEST_F(CapiSurroundingsTest, ACallbackUsesAnotherHandle) {
    put(db_, "keys/a", "body");
    filestore_open_options hasty = FILESTORE_OPEN_OPTIONS_INIT;
    hasty.lock_seconds = 0;
    filestore_db* handle = nullptr;
    ASSERT_EQ(FILESTORE_OK, filestore_open(folder_.path().c_str(), &hasty, &handle, nullptr));
    const Db other(handle);
    unlock(other, kPassword);
    struct Seen {
        const Db& other;
        int reads = 0;
        std::vector<filestore_status> puts = {};
    } seen{other};
    filestore_callbacks callbacks = FILESTORE_CALLBACKS_INIT;
    callbacks.user = &seen;
    callbacks.progress = [](void* user, const char*, std::uint64_t, std::uint64_t) {
        auto& own = *static_cast<Seen*>(user);
        own.reads += statusOfGet(own.other, "keys/a") == FILESTORE_OK ? 1 : 0;
        own.puts.push_back(statusOfPut(own.other, "keys/b", "new"));
    };
    filestore_check_options options = FILESTORE_CHECK_OPTIONS_INIT;
    options.flags = FILESTORE_CHECK_DEEP;
    EXPECT_EQ(FILESTORE_OK, filestore_check(db_.get(), &options, &callbacks, nullptr));
    EXPECT_GT(seen.reads, 0);
    EXPECT_THAT(seen.puts, testing::Each(FILESTORE_BUSY));
    EXPECT_EQ("body", bodyOf(get(db_, "keys/a")));
}

// Readers that never stop leave gaps, and a writer finds one in the time that it waits.
TEST_F(CapiSurroundingsTest, AWriterGetsItsTurnAmongReaders) {
    put(db_, "keys/a", "body");
    settle();
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            const Db own = openWith(folder_.path(), kPassword);
            while (!done) {
                (void)statusOfGet(own, "keys/a");
            }
        });
    }
    std::vector<filestore_status> puts;
    for (int i = 0; i < 10; ++i) {
        puts.push_back(statusOfPut(db_, "keys/b", std::to_string(i)));
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_THAT(puts, testing::Each(FILESTORE_OK));
}

}  // namespace
}  // namespace capi_test
