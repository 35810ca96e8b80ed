// Between the terminal and the signal handlers: what to undo when a signal ends the
// process while the terminal's echo is off.
#ifndef OS_TERMINAL_ECHO_H
#define OS_TERMINAL_ECHO_H

namespace os {

// Restores the settings that the terminal had before askTerminal(); does nothing at other
// times. A signal handler may call it.
void restoreEcho() noexcept;

}  // namespace os

#endif  // OS_TERMINAL_ECHO_H
