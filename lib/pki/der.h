// The little that is asked of DER before OpenSSL gets to see it.
#ifndef LIB_PKI_DER_H
#define LIB_PKI_DER_H

#include <cstdint>
#include <optional>
#include <span>

namespace fstore {

// Where the SEQUENCE at the front of the bytes ends, which may be beyond them; none when
// there is no such thing. Every object that is imported is a SEQUENCE.
std::optional<std::uint64_t> endOfSequence(std::span<const unsigned char> bytes);

}  // namespace fstore

#endif  // LIB_PKI_DER_H
