// What a program needs from its terminal: whether there is one, how wide it is, and a
// line of input that does not appear on the screen.
//
// For a program's main thread.
#ifndef OS_TERMINAL_H
#define OS_TERMINAL_H

#include <sys/types.h>

#include <cstddef>

#include "os/handles.h"

namespace os {

inline constexpr int kStandardOutput = 1;

[[nodiscard]] bool isTerminal(int fd) noexcept;

// The terminal's width in columns; 0 when `fd` is not a terminal or does not know.
[[nodiscard]] unsigned int terminalColumns(int fd) noexcept;

// The controlling terminal, for reading and writing; empty when there is none.
[[nodiscard]] File openTerminal() noexcept;

enum class Echo { kOff, kOn };

// Writes `prompt` to the terminal and reads one line of at most `capacity` bytes from it,
// without its line feed and, with kOff, without showing it. Discards what was typed
// before. The terminal's echo is restored when this returns, when a signal ends the process
// meanwhile (see installSignalHandlers()), and while Ctrl-Z stops it; the prompt is shown again
// afterwards.
//
// Returns the length of the line; -1 when the terminal ended or failed before a line was
// complete, or when the line is too long (errno EMSGSIZE). The caller wipes `line`.
[[nodiscard]] ssize_t askTerminal(const File& terminal, Echo echo, const char* prompt, char* line,
                                  std::size_t capacity) noexcept;

}  // namespace os

#endif  // OS_TERMINAL_H
