// Symbolic links: what they say, and new ones.
//
// Any thread may call any of these; relative paths begin at its os::Base. A failure leaves its
// reason in errno.
#ifndef OS_LINKS_H
#define OS_LINKS_H

#include <optional>
#include <string>

namespace os {

// The text of a link; nothing for what is not there or not a link (EINVAL), or cannot be read.
[[nodiscard]] std::optional<std::string> readLink(const char* path);

// Makes a link with this text; nothing may have the name.
[[nodiscard]] bool makeLink(const char* text, const char* path) noexcept;

}  // namespace os

#endif  // OS_LINKS_H
