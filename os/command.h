// Another program, run to its end.
//
// For a program's main thread, while there is no other: the umask is the whole process's.
#ifndef OS_COMMAND_H
#define OS_COMMAND_H

#include <string>
#include <vector>

namespace os {

struct CommandEnd {
    int error = 0;        // errno when it could not be started; the others are then 0
    int exitCode = 0;     // when it ended by itself
    int signal = 0;       // when a signal ended it
    bool isLate = false;  // when it had to be ended; the others are then 0
};

// Whether runCommand() would find a program of this name by PATH.
[[nodiscard]] bool isInPath(const std::string& program);

// What a program has that runCommand() runs, where that is not what this process has.
struct CommandPlace {
    std::string output = {};    // a file that is made for what it says
    std::string withheld = {};  // how the variables begin that it does not get; empty for none
};

// Runs a program, found by PATH, with its arguments; `words` has the program first. It has the
// environment and the umask that this process was started with, reads nothing, and writes to this
// process's standard error, so that the standard output stays what the caller makes it; nowhere if
// that is closed. All other descriptors are closed in it.
//
// It has `seconds`; then it is killed with all that it has started in its process group, which is
// one of its own. What has left that group, as daemons do, stays, and is not waited for. A signal
// that ends this process (installSignalHandlers()) goes to the group, too.
[[nodiscard]] CommandEnd runCommand(const std::vector<std::string>& words, double seconds,
                                    const CommandPlace& place = {});

// Runs a program as a shell would, on this process's terminal and standard streams, and waits for
// its end, however long that takes. Interrupts from the terminal are the program's: this process
// does not hear them meanwhile. It has this process's umask, and no other descriptors.
[[nodiscard]] CommandEnd runOnTerminal(const std::vector<std::string>& words);

}  // namespace os

#endif  // OS_COMMAND_H
