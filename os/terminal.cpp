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
volatile sig_atomic_t changedTerminal = -1;  // the descriptor with other settings, or -1

// Line by line; without echo, the line feed that ends the line is shown all the same.
bool prepare(int fd, Echo echo) noexcept {
    if (::tcgetattr(fd, &settingsBefore) != 0) {
        return false;
    }
    termios changed = settingsBefore;
    changed.c_lflag |= ICANON | ECHONL | ECHO;
    if (echo == Echo::kOff) {
        changed.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    }
    changedTerminal = fd;  // before the change: restoring too much does no harm
    if (::tcsetattr(fd, TCSAFLUSH, &changed) != 0) {
        changedTerminal = -1;
        return false;
    }
    return true;
}

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
    if (!prepare(fd, echo) || !writeAll(fd, prompt, std::strlen(prompt))) {
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
