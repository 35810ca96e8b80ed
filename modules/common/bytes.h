// Bytes that someone else owns, to be read.
#ifndef MODULES_COMMON_BYTES_H
#define MODULES_COMMON_BYTES_H

#include <span>

using Bytes = std::span<const unsigned char>;

#endif  // MODULES_COMMON_BYTES_H
