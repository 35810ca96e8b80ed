// The PEM blocks in a text, as they occur in practice: after a byte order mark, indented,
// quoted, with too few dashes or on one line, and with any line ends.
//
// Finds every BEGIN: a block that cannot be read is still a block, so that its line can be
// reported. Work and memory are in proportion to the text. Any thread may call these.
#ifndef LIB_PKI_PEM_H
#define LIB_PKI_PEM_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cmn/secret_bytes.h"

namespace fstore {

struct PemBlock {
    enum class Shape {
        kWhole,
        kNoEnd,    // ended by the next BEGIN, or by the end of the text
        kNoBegin,  // an END alone; the text is what could be its block
    };
    Shape shape = Shape::kNoEnd;
    std::string type;         // "CERTIFICATE"; in capitals
    unsigned int line = 0;    // of its first mark, from 1
    std::string_view margin;  // before that mark's dashes on its line
    std::string_view text;    // between the marks
};

// The blocks in the order of the text. Throws kInvalid when there are more than `most`.
std::vector<PemBlock> findPemBlocks(std::string_view text, std::size_t most);

// The contents of a block; wiped, since it may be a key.
struct PemContent {
    std::string header;  // "Proc-Type: 4,ENCRYPTED\n..."; empty for most
    SecretBytes der;
};

// None when the block is not base 64.
std::optional<PemContent> contentOf(const PemBlock& block);

}  // namespace fstore

#endif  // LIB_PKI_PEM_H
