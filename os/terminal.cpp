#include "os/terminal.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <termios.h>

#include "os/files.h"
#include "os/terminal_echo.h"

namespace os {
namespace {

termios settingsBefore;
termios settingsMeanwhile;
const char* promptShown = nullptr;
volatile sig_atomic_t changedTerminal = -1;  // the descriptor with other settings, or -1

bool showPrompt(int fd) noexcept {
    return writeAll(fd, promptShown, std::strlen(promptShown));
}

// Line by line; without echo, the line feed that ends the line is shown all the same.
bool prepare(int fd, Echo echo) noexcept {
    if (::tcgetattr(fd, &settingsBefore) != 0) {
        return false;
    }
    settingsMeanwhile = settingsBefore;
    settingsMeanwhile.c_lflag |= ICANON | ECHONL | ECHO;
    if (echo == Echo::kOff) {
        settingsMeanwhile.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    }
    changedTerminal = fd;  // before the change: restoring too much does no harm
    if (::tcsetattr(fd, TCSAFLUSH, &settingsMeanwhile) != 0) {
        changedTerminal = -1;
        return false;
    }
    return true;
}

// Ctrl-Z at a prompt: the shell gets the terminal as it was, and who comes back sees the prompt.
void onStop(int) noexcept {
    const int kept = errno;
    const int fd = changedTerminal;
    if (fd >= 0) {
        (void)::tcsetattr(fd, TCSAFLUSH, &settingsBefore);
    }
    (void)::raise(SIGSTOP);
    if (fd >= 0) {
        (void)::tcsetattr(fd, TCSAFLUSH, &settingsMeanwhile);
        (void)showPrompt(fd);
    }
    errno = kept;
}

// onStop() for as long as this lives, unless the parent has the signal ignored.
class StopHandler {
public:
    StopHandler() noexcept {
        struct sigaction action {};
        action.sa_handler = onStop;
        action.sa_flags = SA_RESTART;
        sigfillset(&action.sa_mask);
        if (::sigaction(SIGTSTP, nullptr, &before_) == 0 && before_.sa_handler != SIG_IGN) {
            (void)::sigaction(SIGTSTP, &action, nullptr);
        }
    }
    StopHandler(const StopHandler&) = delete;
    StopHandler& operator=(const StopHandler&) = delete;
    ~StopHandler() { (void)::sigaction(SIGTSTP, &before_, nullptr); }

private:
    struct sigaction before_ {};
};

}  // namespace

bool isTerminal(int fd) noexcept {
    return ::isatty(fd) == 1;
}

unsigned int terminalColumns(int fd) noexcept {
    winsize size{};
    return ::ioctl(fd, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

File openTerminal() noexcept {
    return openFile("/dev/tty", O_RDWR | O_NOCTTY);
}

ssize_t askTerminal(const File& terminal, Echo echo, const char* prompt, char* line,
                    std::size_t capacity) noexcept {
    const int fd = terminal.get();
    const StopHandler stopHandler;
    promptShown = prompt;
    if (!prepare(fd, echo) || !showPrompt(fd)) {
        restoreEcho();
        return -1;
    }
    std::size_t length = 0;
    bool complete = false;
    bool tooLong = false;
    char next = 0;
    errno = 0;
    while (!complete && readSome(fd, &next, 1) == 1) {
        if (next == '\n') {
            complete = true;
        } else if (length == capacity) {
            tooLong = true;
        } else {
            line[length++] = next;
        }
    }
    restoreEcho();
    if (!complete || tooLong) {
        errno = tooLong ? EMSGSIZE : errno;
        return -1;
    }
    return static_cast<ssize_t>(length);
}

void restoreEcho() noexcept {
    const int kept = errno;
    if (changedTerminal >= 0) {
        (void)::tcsetattr(changedTerminal, TCSAFLUSH, &settingsBefore);
        changedTerminal = -1;
    }
    errno = kept;
}

}  // namespace os
