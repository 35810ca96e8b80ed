#include "tests/lib/pki/pki_files.h"

#include <cctype>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

namespace fstore {
namespace {

std::string digitsOf(const std::string& text) {
    std::string digits;
    for (const char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0) {
            digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    return digits;
}

std::string valueOf(const std::string& key, std::string text) {
    if (key.ends_with("Update") || key.starts_with("not")) {
        text[text.find(' ')] = 'T';
        return text;
    }
    return key == "subject" || key == "issuer" ? text : digitsOf(text);
}

}  // namespace

PkiFiles::PkiFiles() {
    const std::string command = "sh " MAKE_PKI " '" + folder_.path() + "'";
    if (std::system(command.c_str()) != 0) {  // NOLINT(concurrency-mt-unsafe): one thread
        throw std::runtime_error(command + ":\n" + text("make_pki.log"));
    }
}

const PkiFiles& PkiFiles::get() {
    static const PkiFiles files;
    return files;
}

SecretBytes PkiFiles::bytes(const std::string& name) const {
    return bytesOf(text(name));
}

std::map<std::string, std::string> PkiFiles::said(const std::string& name) const {
    std::map<std::string, std::string> values;
    std::istringstream lines(text(name + ".said"));
    for (std::string line; std::getline(lines, line);) {
        if (const auto end = line.find_last_not_of(' '); line.ends_with(": ")) {
            std::string next;
            std::getline(lines, next);
            values[line.substr(0, end)] = digitsOf(next);
            continue;
        }
        std::size_t equals = line.find('=');
        const std::string key = line.substr(0, equals);
        if (line.compare(equals, 3, "=0x") == 0) {
            equals += 2;
        }
        values[key] = valueOf(key, line.substr(equals + 1));
    }
    return values;
}

SecretBytes bytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

}  // namespace fstore
