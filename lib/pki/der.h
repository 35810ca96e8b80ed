// What the library reads of DER before it calls OpenSSL.
#ifndef LIB_PKI_DER_H
#define LIB_PKI_DER_H

#include <cstdint>
#include <optional>
#include <span>

namespace fstore {

// Where the SEQUENCE at the front of the bytes ends, which may be beyond them; none when there
// is no SEQUENCE. Every object that can be imported is one.
std::optional<std::uint64_t> endOfSequence(std::span<const unsigned char> bytes);

}  // namespace fstore

#endif  // LIB_PKI_DER_H
