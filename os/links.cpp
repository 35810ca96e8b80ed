#include "os/links.h"

#include <unistd.h>

#include <array>
#include <climits>

#include "os/base.h"

namespace os {

std::optional<std::string> readLink(const char* path) {
    std::array<char, PATH_MAX> text{};
    const ssize_t size = ::readlinkat(baseFolder(), path, text.data(), text.size());
    if (size < 0) {
        return std::nullopt;
    }
    return std::string(text.data(), static_cast<std::size_t>(size));
}

bool makeLink(const char* text, const char* path) noexcept {
    return ::symlinkat(text, baseFolder(), path) == 0;
}

}  // namespace os
