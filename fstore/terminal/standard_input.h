// The standard input, which a command can read for one purpose only.
#ifndef FSTORE_TERMINAL_STANDARD_INPUT_H
#define FSTORE_TERMINAL_STANDARD_INPUT_H

#include <string>

namespace fstore {

class StandardInput {
public:
    // Records that it is read as `what`: "the password". Throws kUsage if it is already read
    // as something else.
    void claim(const std::string& what);

    // The same, if `file` is the name that stands for it.
    void claimIfNamed(const std::string& file, const std::string& what);

private:
    std::string reader_;
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_STANDARD_INPUT_H
