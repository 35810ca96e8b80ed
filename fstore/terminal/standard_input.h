// The standard input, from which one thing of a command can be read.
#ifndef FSTORE_TERMINAL_STANDARD_INPUT_H
#define FSTORE_TERMINAL_STANDARD_INPUT_H

#include <string>

namespace fstore {

class StandardInput {
public:
    // Notes that it is read as `what`: "the password". Throws kUsage when something else
    // is read from it already.
    void claim(const std::string& what);

    // The same, when this is the file's name that stands for it.
    void claimIfNamed(const std::string& file, const std::string& what);

private:
    std::string reader_;
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_STANDARD_INPUT_H
