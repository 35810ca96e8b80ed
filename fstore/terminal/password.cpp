#include "fstore/terminal/password.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fmt/format.h>

#include "fstore/terminal/output.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/process.h"
#include "os/terminal.h"

namespace fstore {
namespace {

constexpr int kStdin = 0;
constexpr std::size_t kMost = 4096;  // bytes of a password

// What a password is called, and the heads of its options and variables.
struct Words {
    const char* what;
    const char* prompt;
    const char* option;
    const char* variable;
};

constexpr Words kWords[] = {
    {"password", "Password", "--password", "FSTORE_PASSWORD"},
    {"new password", "New password", "--new-password", "FSTORE_NEW_PASSWORD"},
    {"password of the imported file", "Password of the imported file", "--in-password",
     "FSTORE_IN_PASSWORD"},
    {"password for the exported file", "Password for the exported file", "--out-password",
     "FSTORE_OUT_PASSWORD"}};

const Words& wordsOf(PasswordSource::Which which) {
    return kWords[static_cast<int>(which)];
}

const char* describe(PasswordSource::Which which) {
    return wordsOf(which).what;
}

// "FSTORE_PASSWORD" and the like.
std::string variableName(PasswordSource::Which which, const char* tail) {
    return std::string(wordsOf(which).variable) + tail;
}

SecretText accepted(std::string_view text, PasswordSource::Which which) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    if (text.empty()) {
        throw Failure(kInvalid, fmt::format("the {} is empty", describe(which)));
    }
    if (text.find('\0') != std::string_view::npos) {
        throw Failure(kInvalid, fmt::format("the {} contains a NUL byte", describe(which)));
    }
    if (text.size() > kMost) {
        throw Failure(kInvalid,
                      fmt::format("the {} is longer than {} bytes", describe(which), kMost));
    }
    return SecretText(text);
}

constexpr const char* kKeyFile = ", or a key file with --key-file or FSTORE_KEY_FILE";
constexpr const char* kKeyFileOrCredential =
    ", or a key file with --key-file, FSTORE_KEY_FILE or as the credential fstore.key, which is "
    "not "
    "in the folder of CREDENTIALS_DIRECTORY, or that is no absolute path";

// The value of an environment variable, or null.
const char* variable(const std::string& name) {
    return ::secure_getenv(name.c_str());
}

[[noreturn]] void failWithoutSource(PasswordSource::Which which) {
    const char* const option = wordsOf(which).option;
    const bool keyFileWouldDo = which == PasswordSource::Which::kCurrent;
    throw Failure(
        kUsage,
        fmt::format(
            "no {} given and no terminal to ask on; give it with {}-fd, {}-file, {} or {}{}",
            describe(which), option, option, variableName(which, "_FILE"), variableName(which, ""),
            !keyFileWouldDo                                ? ""
            : variable("CREDENTIALS_DIRECTORY") == nullptr ? kKeyFile
                                                           : kKeyFileOrCredential));
}

}  // namespace

void requireName(std::string_view name, std::string_view source) {
    if (name.empty()) {
        throw Failure(kUsage, fmt::format("{} is empty; it takes the name of a file", source));
    }
}

PasswordSource::PasswordSource(Which which, const PasswordOptions& options, bool noInput,
                               Output& output, StandardInput& input)
    : which_(which), noInput_(noInput), output_(output) {
    const std::string fileVariable = variableName(which, "_FILE");
    const char* const file = variable(fileVariable);
    if (options.fd == kStdin) {
        openFile(std::string(kStandardStream), input);
    } else if (options.fd) {
        from_ = From::kFd;
        fd_ = *options.fd;
        name_ = fmt::format("descriptor {}", fd_);
    } else if (options.file) {
        requireName(*options.file, fmt::format("{}-file", wordsOf(which).option));
        openFile(*options.file, input);
    } else if (file != nullptr) {
        requireName(file, fileVariable);
        openFile(file, input);
    } else if (variable(variableName(which, "")) != nullptr) {
        from_ = From::kVariable;
        name_ = variableName(which, "");
    }
}

void PasswordSource::openFile(const std::string& name, StandardInput& input) {
    from_ = From::kFile;
    if (name == kStandardStream) {
        input.claim(fmt::format("the {}", describe(which_)));
        name_ = "the standard input";
        return;
    }
    name_ = name;
    file_ = os::openFile(name.c_str(), O_RDONLY | O_NOCTTY);
    struct stat status {};
    if (!file_ || os::fstat(file_.get(), &status) != 0) {
        failWithErrno("open the password file", name);
    }
    othersCanRead_ = S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
}

const SecretText& PasswordSource::get(Entry entry) {
    if (password_) {
        return *password_;
    }
    switch (from_) {
        case From::kFd:
            password_ = read(fd_);
            break;
        case From::kFile:
            if (othersCanRead_) {
                output_.warn(fmt::format(
                    "other users can read the password file {}; protect it with chmod 600", name_));
            }
            password_ = read(file_ ? file_.get() : kStdin);
            break;
        case From::kVariable:
            if (const char* const value = variable(name_)) {
                password_ = accepted(value, which_);
            }
            os::forgetVariable(name_.c_str());
            break;
        case From::kTerminal:
            password_ = readTerminal(entry);
            break;
    }
    return *password_;
}

SecretText PasswordSource::read(int fd) {
    SecretKey bytes(kMost + 2);  // a byte too many shows, and a line feed may follow
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = os::readSome(fd, bytes.data() + filled, bytes.size() - filled);
        if (got < 0) {
            failWithErrno(fmt::format("read the {} from", describe(which_)), name_);
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), filled);
    if (text.ends_with("\r\n")) {
        text.remove_suffix(2);
        output_.warn(fmt::format(
            "the line of the {} in {} ends as on Windows; its carriage return is left out (to have "
            "it in the password, write no line feed behind it)",
            describe(which_), name_));
    }
    return accepted(text, which_);
}

SecretText PasswordSource::readTerminal(Entry entry) const {
    const std::string what = wordsOf(which_).prompt;
    SecretText first = ask((what + ": ").c_str());
    if (entry == Entry::kTwice && ask((what + " again: ").c_str()).view() != first.view()) {
        throw Failure(kInvalid, "the two passwords differ; nothing was changed");
    }
    return first;
}

SecretText PasswordSource::ask(const char* prompt) const {
    const os::File terminal = noInput_ ? os::File() : os::openTerminal();
    if (!terminal) {
        failWithoutSource(which_);
    }
    SecretKey line(kMost + 1);
    const ssize_t length = os::askTerminal(terminal, os::Echo::kOff, prompt,
                                           reinterpret_cast<char*>(line.data()), line.size());
    if (length < 0 && errno != EMSGSIZE) {
        throw Failure(kUsage, fmt::format("no {} was entered", describe(which_)));
    }
    const std::size_t size = length < 0 ? line.size() : static_cast<std::size_t>(length);
    return accepted({reinterpret_cast<const char*>(line.data()), size}, which_);
}

void forgetPasswords() noexcept {
    for (const Words& words : kWords) {
        os::forgetVariable(words.variable);
    }
}

bool confirm(const std::string& question, bool noInput) {
    const os::File terminal = noInput ? os::File() : os::openTerminal();
    if (!terminal) {
        return false;
    }
    // A list may stand before it, a line each.
    const std::size_t last = question.rfind('\n') + 1;  // npos + 1 is 0
    const std::string prompt =
        question.substr(0, last) +
        fitted(question.substr(last) + " [y/N]", os::terminalColumns(terminal.get())) + " ";
    char answer[16];
    const ssize_t length =
        os::askTerminal(terminal, os::Echo::kOn, prompt.c_str(), answer, sizeof answer);
    const std::string_view said(answer, length < 0 ? 0 : static_cast<std::size_t>(length));
    return said == "y" || said == "Y" || said == "yes" || said == "Yes" || said == "YES";
}

}  // namespace fstore
