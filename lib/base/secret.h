// Text that may be secret: wiped whenever its memory is freed.
#ifndef LIB_BASE_SECRET_H
#define LIB_BASE_SECRET_H

#include <cstring>
#include <string_view>

#include "cmn/secret_bytes.h"

namespace fstore {

// A password, NUL-terminated for the store. Not a std::string, which keeps short
// texts in itself, where no allocator wipes them.
class SecretText {
public:
    SecretText() : bytes_(1, 0) {}
    explicit SecretText(std::string_view text) : bytes_(text.begin(), text.end()) {
        bytes_.push_back(0);
    }

    const char* c_str() const noexcept { return reinterpret_cast<const char*>(bytes_.data()); }
    std::size_t size() const noexcept { return bytes_.size() - 1; }
    bool empty() const noexcept { return size() == 0; }
    std::string_view view() const noexcept { return {c_str(), size()}; }

private:
    SecretBytes bytes_;  // with the NUL
};

}  // namespace fstore

#endif  // LIB_BASE_SECRET_H
