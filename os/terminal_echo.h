// Between the terminal and the signal handlers: what has to be undone when a signal
// ends the process while the terminal does not show what is typed.
#ifndef OS_TERMINAL_ECHO_H
#define OS_TERMINAL_ECHO_H

namespace os {

// Gives the terminal the settings back that it had before askTerminal(); does
// nothing at other times. May be called from a signal handler.
void restoreEcho() noexcept;

}  // namespace os

#endif  // OS_TERMINAL_ECHO_H
