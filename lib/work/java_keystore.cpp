#include "lib/work/java_keystore.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "lib/base/files.h"
#include "lib/base/printable.h"
#include "lib/pki/decode.h"
#include "lib/work/put.h"
#include "os/command.h"
#include "os/files.h"
#include "os/fs.h"
#include "os/memory_folder.h"

namespace fstore {
namespace {

using Bytes = std::span<const unsigned char>;

Bytes octetsOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

void writeFile(const std::string& path, Bytes bytes) {
    OutputFile file(path, /*replace=*/false);
    file.write(bytes);
    file.commit();
}

// Of 128 bits, for the one PKCS#12 file.
SecretText newPassword() {
    constexpr std::size_t kLetters = 32;
    SecretBytes letters = randomBytes(kLetters);
    for (unsigned char& letter : letters) {
        letter = static_cast<unsigned char>('a' + letter % 16);
    }
    return SecretText({reinterpret_cast<const char*>(letters.data()), letters.size()});
}

// What keytool printed, which is the same in all languages: it is told so.
std::string reasonIn(std::string_view said) {
    constexpr std::string_view kError = "keytool error: ", kException = "Exception: ";
    constexpr std::size_t kMost = 200;
    const std::size_t error = said.rfind(kError);
    if (error == std::string_view::npos) {
        return {};
    }
    said.remove_prefix(error + kError.size());
    said = said.substr(0, said.find('\n'));
    if (const std::size_t exception = said.find(kException); exception != std::string_view::npos) {
        said.remove_prefix(exception + kException.size());
    }
    return clipped(printable(said), kMost);
}

// `isSecret`: it is not to be repeated.
Failure failureOf(const os::CommandEnd& end, std::string_view said, bool isSecret, double seconds) {
    if (end.isLate) {
        return {kMalformed, fmt::format("keytool did not convert this Java keystore within {} "
                                        "seconds, and was ended",
                                        seconds)};
    }
    const std::string reason = reasonIn(said);
    if (reason.find("password was incorrect") != std::string::npos) {
        return {kWrongPassword, "wrong password for this Java keystore, or it is damaged"};
    }
    // It has asked for the password of a key, which nobody answered.
    if (said.find("Enter key password for <") != std::string_view::npos) {
        return {kWrongPassword,
                "a key in this Java keystore has another password than the keystore; `keytool "
                "-keypasswd` gives it the same one"};
    }
    if (!reason.empty() && !isSecret) {
        return {kMalformed, "keytool did not convert this Java keystore: " + reason};
    }
    return {kMalformed, end.signal != 0 ? fmt::format("keytool was ended by signal {}", end.signal)
                                        : fmt::format("keytool failed with {}, and gave no reason",
                                                      end.exitCode)};
}

// A keystore, the file that keytool makes of it, and their passwords, all of them in memory.
class Conversion {
public:
    Conversion(Bytes keystore, const char* type, const os::MemoryFolder& folder,
               const SecretText& password)
        : type_(type), folder_(folder), password_(password) {
        writeFile(path("keystore"), keystore);
        writeFile(path("password"), octetsOf(password.view()));
        writeFile(path("new-password"), octetsOf(newPassword_.view()));
    }

    os::CommandEnd run(double seconds) const {
        // Java takes a file for text of the locale, and says things in its language.
        return os::runCommand(
            {"keytool", "-J-Dfile.encoding=UTF-8", "-J-Duser.language=en", "-J-XX:-UsePerfData",
             "-importkeystore", "-noprompt", "-srckeystore", path("keystore"), "-srcstoretype",
             type_, "-srcstorepass:file", path("password"), "-destkeystore", path("made.p12"),
             "-deststoretype", "PKCS12", "-deststorepass:file", path("new-password")},
            seconds, {.output = path("said"), .withheld = "FSTORE_"});
    }

    // However much that is: its beginning and its end, in whole lines. Where the files are concerns
    // nobody.
    std::string said() const {
        constexpr off_t kMost = 1 << 19;  // of each
        os::File file;
        off_t size = 0;
        if (os::openRegular(path("said").c_str(), file, size, os::Links::kRefuse) !=
            os::Opened::kRegular) {
            return {};
        }
        std::string text = textAt(file, 0, std::min(size, 2 * kMost));
        if (size > 2 * kMost) {
            const std::string end = textAt(file, size - kMost, kMost);
            text.resize(text.rfind('\n', kMost) + 1);  // all of it for no line
            text += end.substr(std::min(end.find('\n'), end.size()));
        }
        return without(std::move(text), {folder_.path() + "/", folder_.path()});
    }

    // Whether one of the passwords is in it.
    bool isSecret(std::string_view said) const {
        return std::ranges::any_of(
            std::array{password_.view(), newPassword_.view()}, [&](std::string_view secret) {
                return !secret.empty() && said.find(secret) != std::string_view::npos;
            });
    }

    std::vector<PkiPart> parts() const {
        // Neither waits for what is no file, nor follows a link.
        os::File file;
        off_t size = 0;
        if (os::openRegular(path("made.p12").c_str(), file, size, os::Links::kRefuse) !=
            os::Opened::kRegular) {
            throw Failure(kMalformed,
                          "keytool did not convert this Java keystore, and says it did");
        }
        const SecretBytes made =
            InputFile(std::move(file), "what keytool made of it").readAll(kMostInput);
        return decodePki(made, [this]() -> const SecretText& { return newPassword_; });
    }

private:
    std::string path(const char* name) const { return joined(folder_.path(), name); }

    static std::string textAt(const os::File& file, off_t at, off_t size) {
        std::string text(static_cast<std::size_t>(size), '\0');
        const ssize_t got = os::pread(file.get(), text.data(), text.size(), at);
        text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        return text;
    }

    static std::string without(std::string text, std::initializer_list<std::string> left) {
        for (const std::string& each : left) {
            for (std::size_t at = text.find(each); at != std::string::npos;
                 at = text.find(each, at)) {
                text.erase(at, each.size());
            }
        }
        return text;
    }

    const char* type_;
    const os::MemoryFolder& folder_;
    const SecretText& password_;
    const SecretText newPassword_ = newPassword();
};

// Entries that keytool passes over, with a line for each, and succeeds all the same.
void addPassedOver(std::string_view said, bool isSecret, std::vector<PkiPart>& parts) {
    constexpr std::string_view kProblem = "Problem importing entry for alias ";
    constexpr std::size_t kMost = 200, kMostEntries = 1000;
    std::size_t count = 0;
    for (std::size_t at = said.find(kProblem); at != std::string_view::npos;
         at = said.find(kProblem, at + kProblem.size())) {
        if (++count > kMostEntries) {
            parts.push_back(
                {0, "", Failure(kMalformed, "keytool did not convert further entries")});
            break;
        }
        const std::string_view line = said.substr(at, said.find('\n', at) - at);
        const std::string entry = clipped(printable(line.substr(kProblem.size())), kMost);
        parts.push_back(
            {0, "",
             Failure(kMalformed, isSecret ? "keytool did not convert an entry"
                                          : "keytool did not convert the entry " + entry)});
    }
}

}  // namespace

std::vector<PkiPart> decodeWithKeytool(Bytes bytes, const InputPassword& password, double seconds) {
    const char* const type = bytes.size() <= kMostInput ? javaKeystoreType(bytes) : nullptr;
    if (type == nullptr || !os::isInPath("keytool")) {
        return decodePki(bytes, password);
    }
    std::vector<PkiPart> parts;
    try {
        const os::MemoryFolder folder;
        if (folder.path().empty()) {
            throw Failure(
                kIo,
                "a Java keystore; there is no place in memory where keytool could "
                "convert it (/dev/shm, XDG_RUNTIME_DIR), and it is not written to a disk");
        }
        const Conversion conversion(bytes, type, folder, password());
        const os::CommandEnd end = conversion.run(seconds);
        if (end.error != 0) {
            throw Failure(kMalformed,
                          "keytool, which is to convert this Java keystore, cannot be "
                          "started: " +
                              std::generic_category().message(end.error));
        }
        const std::string said = conversion.said();
        if (end.isLate || end.signal != 0 || end.exitCode != 0) {
            throw failureOf(end, said, conversion.isSecret(said), seconds);
        }
        parts = conversion.parts();
        addPassedOver(said, conversion.isSecret(said), parts);
    } catch (const Failure& failure) {
        parts.push_back({0, "", failure});
    }
    return parts;
}

}  // namespace fstore
