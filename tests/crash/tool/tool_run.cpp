#include "tests/crash/tool/tool_run.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "fstore/commands/cli.h"
#include "fstore/commands/commands.h"

namespace crash {
namespace {

// What is written to stdout and stderr while this lives.
class Captured {
public:
    Captured() : file_(::memfd_create("said", MFD_CLOEXEC)) {
        std::fflush(nullptr);
        if (file_ < 0) {
            throw std::runtime_error("memfd_create");
        }
        for (const int fd : {1, 2}) {
            kept_[fd - 1] = ::dup(fd);
            (void)::dup2(file_, fd);
        }
    }
    Captured(const Captured&) = delete;
    Captured& operator=(const Captured&) = delete;
    ~Captured() {
        std::fflush(nullptr);
        for (const int fd : {1, 2}) {
            (void)::dup2(kept_[fd - 1], fd);
            (void)::close(kept_[fd - 1]);
        }
        (void)::close(file_);
    }

    std::string text() const {
        std::fflush(nullptr);
        std::string text(static_cast<std::size_t>(::lseek(file_, 0, SEEK_END)), '\0');
        const ssize_t got = ::pread(file_, text.data(), text.size(), 0);
        text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        return text;
    }

private:
    int file_;
    int kept_[2]{};
};

}  // namespace

std::string describe(const Command& command) {
    std::string text = "fstore";
    for (const std::string& arg : command.args) {
        text += " " + arg;
    }
    return text;
}

Ran run(const Command& command) {
    // One thread, and nothing that reads the environment meanwhile.
    // NOLINTBEGIN(concurrency-mt-unsafe)
    (void)::setenv("FSTORE_PASSWORD", command.password.c_str(), 1);
    (void)::setenv("FSTORE_NEW_PASSWORD", kNewPassword, 1);
    // NOLINTEND(concurrency-mt-unsafe)
    std::vector<const char*> args{"fstore", "--no-input"};
    for (const std::string& arg : command.args) {
        args.push_back(arg.c_str());
    }
    const std::filesystem::path here = std::filesystem::current_path();
    Ran ran;
    {
        const Captured captured;
        fstore::Cli cli;
        fstore::addCommands(cli);
        ran.code = cli.execute(static_cast<int>(args.size()), args.data());
        ran.said = captured.text();
    }
    std::filesystem::current_path(here);
    return ran;
}

}  // namespace crash
