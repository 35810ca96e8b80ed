// A command of the tool, run in this process as the program would run it.
#ifndef TESTS_CRASH_TOOL_TOOL_RUN_H
#define TESTS_CRASH_TOOL_TOOL_RUN_H

#include <string>
#include <vector>

namespace crash {

inline constexpr const char* kPassword = "correct horse";
inline constexpr const char* kNewPassword = "another password";

struct Command {
    std::vector<std::string> args;
    std::string password = kPassword;
};

std::string describe(const Command& command);

struct Ran {
    int code = 0;
    std::string said;  // on stdout and stderr
};

// The current folder is the same afterwards. A new password is kNewPassword.
Ran run(const Command& command);

}  // namespace crash

#endif  // TESTS_CRASH_TOOL_TOOL_RUN_H
