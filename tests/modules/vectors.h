// Known answers from files under tests/data/, and the openssl program as a second
// opinion. Failures throw and fail the test.
#ifndef TESTS_MODULES_VECTORS_H
#define TESTS_MODULES_VECTORS_H

#include <map>
#include <string>
#include <vector>

namespace support {

// Lines "name = value", blocks apart by empty lines; "#" begins a comment. A value
// may be empty.
class Vector {
public:
    void set(const std::string& name, const std::string& value) { values_[name] = value; }
    bool empty() const { return values_.empty(); }

    std::string text(const std::string& name) const;     // as it stands
    std::string bytes(const std::string& name) const;    // of hex digits
    unsigned int number(const std::string& name) const;  // decimal

private:
    std::map<std::string, std::string> values_;
};

// All blocks of tests/data/<file>.
std::vector<Vector> readVectors(const std::string& file);

std::string fromHex(const std::string& digits);
std::string toHex(const std::string& bytes);  // lower case

// What `openssl <arguments>` prints; the arguments are words for the shell.
std::string openssl(const std::string& arguments);

}  // namespace support

#endif  // TESTS_MODULES_VECTORS_H
