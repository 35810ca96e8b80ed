#include "os/command.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <thread>

#include <spawn.h>

#include "os/process.h"

namespace os {
namespace {

// Not so of what occupyStandardStreams() has opened.
bool canWrite(int fd) noexcept {
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_ACCMODE) != O_RDONLY;
}

// How the program begins: its streams, and the signals that installSignalHandlers() ignores.
class Beginning {
public:
    enum class On { kNothing, kTerminal };

    // `output` is a file for what it says, empty for this process's standard error.
    explicit Beginning(On streams, const std::string& output = {}) noexcept {
        (void)posix_spawn_file_actions_init(&files_);
        (void)posix_spawnattr_init(&attributes_);
        error_ = fill(streams, output);
    }
    Beginning(const Beginning&) = delete;
    Beginning& operator=(const Beginning&) = delete;
    ~Beginning() {
        (void)posix_spawn_file_actions_destroy(&files_);
        (void)posix_spawnattr_destroy(&attributes_);
    }

    int error() const noexcept { return error_; }
    const posix_spawn_file_actions_t* files() const noexcept { return &files_; }
    const posix_spawnattr_t* attributes() const noexcept { return &attributes_; }

private:
    int fill(On streams, const std::string& output) noexcept {
        sigset_t defaults;
        (void)sigemptyset(&defaults);
        (void)sigaddset(&defaults, SIGPIPE);
        (void)sigaddset(&defaults, SIGXFSZ);
        if (streams == On::kTerminal) {
            (void)sigaddset(&defaults, SIGINT);
            (void)sigaddset(&defaults, SIGQUIT);
            (void)posix_spawnattr_setsigdefault(&attributes_, &defaults);
            (void)posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
            return posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1);
        }
        (void)posix_spawnattr_setsigdefault(&attributes_, &defaults);
        (void)posix_spawnattr_setpgroup(&attributes_, 0);
        (void)posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        return giveStreams(output);
    }

    // The program has no other descriptors: what this process was given, a password perhaps, is not
    // for it. Where there is no standard error, what it says goes nowhere, and is no failure of it.
    int giveStreams(const std::string& output) noexcept {
        int error =
            posix_spawn_file_actions_addopen(&files_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        const bool goesNowhere = output.empty() && !canWrite(STDERR_FILENO);
        if (error == 0 && (goesNowhere || !output.empty())) {
            error = posix_spawn_file_actions_addopen(
                &files_, STDERR_FILENO, goesNowhere ? "/dev/null" : output.c_str(),
                O_WRONLY | O_CREAT | O_APPEND, S_IRUSR | S_IWUSR);
        }
        if (error == 0) {
            error = posix_spawn_file_actions_adddup2(&files_, STDERR_FILENO, STDOUT_FILENO);
        }
        return error != 0 ? error
                          : posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1);
    }

    posix_spawn_file_actions_t files_{};
    posix_spawnattr_t attributes_{};
    int error_ = 0;
};

// What this process does on a signal, for as long as this lives.
class Handling {
public:
    Handling(int number, void (*how)(int)) noexcept : number_(number) {
        struct sigaction action {};
        action.sa_handler = how;
        (void)::sigaction(number_, &action, &before_);
    }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    ~Handling() { (void)::sigaction(number_, &before_, nullptr); }

private:
    const int number_;
    struct sigaction before_ {};
};

// Whoever starts this process may have it ignore that children end. The system then forgets how
// they did, and a program that has done its work would pass for one that could not be run.
class HeardChildren : Handling {
public:
    HeardChildren() noexcept : Handling(SIGCHLD, SIG_DFL) {}
};

// The process group of a program that runs, which ends with this process when a signal ends that.
class Group {
public:
    explicit Group(pid_t leader) noexcept : leader_(leader) { killOnSignal(leader); }
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;
    ~Group() { killOnSignal(0); }

    pid_t leader() const noexcept { return leader_; }
    void kill() const noexcept { (void)::kill(-leader_, SIGKILL); }

private:
    pid_t leader_;
};

CommandEnd endOf(int status) noexcept {
    return WIFSIGNALED(status) ? CommandEnd{.signal = WTERMSIG(status)}
                               : CommandEnd{.exitCode = WEXITSTATUS(status)};
}

CommandEnd waitFor(const Group& group, double seconds) noexcept {
    constexpr std::chrono::milliseconds kPause(10);
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(seconds));
    bool isLate = false;
    for (;;) {
        int status = 0;
        const pid_t ended = ::waitpid(group.leader(), &status, isLate ? 0 : WNOHANG);
        if (ended < 0 && errno != EINTR) {
            return {.error = errno};
        }
        if (ended > 0 && isLate) {
            return {.isLate = true};
        }
        if (ended > 0) {
            return endOf(status);
        }
        if (!isLate && std::chrono::steady_clock::now() >= end) {
            group.kill();
            isLate = true;
        } else if (!isLate) {
            std::this_thread::sleep_for(kPause);
        }
    }
}

// The variables of this process, but for those that begin with `withheld` unless that is empty.
std::vector<char*> variablesBut(const std::string& withheld) {
    std::vector<char*> variables;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        if (withheld.empty() || !std::string_view(*variable).starts_with(withheld)) {
            variables.push_back(*variable);
        }
    }
    variables.push_back(nullptr);
    return variables;
}

// 0, or why it could not be started.
int start(const std::vector<std::string>& words, const Beginning& beginning,
          const std::string& withheld, pid_t& child) {
    if (beginning.error() != 0) {
        return beginning.error();
    }
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) {
        arguments.push_back(const_cast<char*>(word.c_str()));  // the call's type; it changes none
    }
    arguments.push_back(nullptr);
    return ::posix_spawnp(&child, arguments.front(), beginning.files(), beginning.attributes(),
                          arguments.data(), variablesBut(withheld).data());
}

}  // namespace

bool isInPath(const std::string& program) {
    // For a program that has one thread still.
    const char* const variable = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe)
    std::string_view rest = variable != nullptr ? variable : "/bin:/usr/bin";  // as execvp()
    for (;;) {
        const std::size_t end = rest.find(':');
        const std::string folder(rest.substr(0, end));  // an empty one is the present folder
        const std::string path = (folder.empty() ? "." : folder) + "/" + program;
        struct stat status {};
        if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
            ::access(path.c_str(), X_OK) == 0) {
            return true;
        }
        if (end == std::string_view::npos) {
            return false;
        }
        rest.remove_prefix(end + 1);
    }
}

CommandEnd runCommand(const std::vector<std::string>& words, double seconds,
                      const CommandPlace& place) {
    const HeardChildren heard;
    pid_t child = 0;
    const mode_t mine = ::umask(givenMask());
    const int error =
        start(words, Beginning(Beginning::On::kNothing, place.output), place.withheld, child);
    (void)::umask(mine);
    return error != 0 ? CommandEnd{.error = error} : waitFor(Group(child), seconds);
}

CommandEnd runOnTerminal(const std::vector<std::string>& words) {
    const HeardChildren heard;
    const Handling interrupt(SIGINT, SIG_IGN);  // it is the program's
    const Handling quit(SIGQUIT, SIG_IGN);
    pid_t child = 0;
    if (const int error = start(words, Beginning(Beginning::On::kTerminal), {}, child);
        error != 0) {
        return {.error = error};
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return {.error = errno};
        }
    }
    return endOf(status);
}

}  // namespace os
