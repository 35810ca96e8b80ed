// What the library reads of DER before it calls OpenSSL.
#ifndef LIB_PKI_DER_H
#define LIB_PKI_DER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace fstore {

// Where the SEQUENCE at the front of the bytes ends, which may be beyond them; none when there
// is no SEQUENCE. Every object that can be imported is one.
std::optional<std::uint64_t> endOfSequence(std::span<const unsigned char> bytes);

// What work the elements of some DER can make, those in its OCTET and BIT STRINGs among them.
// Of what is not DER, the elements in front of the fault.
struct DerCensus {
    std::size_t elements = 0;
    std::size_t longestInteger = 0;  // in bytes
};
DerCensus censusOf(std::span<const unsigned char> der);

}  // namespace fstore

#endif  // LIB_PKI_DER_H
