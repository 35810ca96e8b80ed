#include "tests/modules/vectors.h"

#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace support {

std::string Vector::text(const std::string& name) const {
    const auto found = values_.find(name);
    if (found == values_.end()) {
        throw std::runtime_error("a vector without " + name);
    }
    return found->second;
}

std::string Vector::bytes(const std::string& name) const {
    return fromHex(text(name));
}

unsigned int Vector::number(const std::string& name) const {
    return static_cast<unsigned int>(std::stoul(text(name)));
}

std::vector<Vector> readVectors(const std::string& file) {
    std::ifstream in(TEST_DATA "/" + file);
    if (!in) {
        throw std::runtime_error("cannot read " + file);
    }
    std::vector<Vector> vectors;
    Vector current;
    const auto finish = [&] {
        if (!current.empty()) {
            vectors.push_back(current);
            current = Vector();
        }
    };
    for (std::string line; std::getline(in, line);) {
        if (line.empty()) {
            finish();
        } else if (line[0] != '#') {
            const std::size_t sign = line.find(" =");
            if (sign == std::string::npos) {
                throw std::runtime_error("what is " + line);
            }
            current.set(line.substr(0, sign), line.size() > sign + 3 ? line.substr(sign + 3) : "");
        }
    }
    finish();
    if (vectors.empty()) {
        throw std::runtime_error("no vectors in " + file);
    }
    return vectors;
}

std::string fromHex(const std::string& digits) {
    if (digits.size() % 2 != 0) {
        throw std::runtime_error("half a byte");
    }
    std::string bytes;
    for (std::size_t at = 0; at != digits.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

std::string toHex(const std::string& bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string digits;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        digits += kDigits[value / 16];
        digits += kDigits[value % 16];
    }
    return digits;
}

std::string openssl(const std::string& arguments) {
    const std::string command = "openssl " + arguments;
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        throw std::runtime_error(command);
    }
    std::string output;
    char part[4096];
    while (const std::size_t got = std::fread(part, 1, sizeof part, pipe)) {
        output.append(part, got);
    }
    if (pclose(pipe) != 0) {
        throw std::runtime_error(command + " failed: " + output);
    }
    return output;
}

}  // namespace support
