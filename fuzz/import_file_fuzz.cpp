// Whatever file is imported: each part of it is an object or a failure, and an object
// is what its own DER says.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <variant>

#include "lib/base/printable.h"
#include "lib/pki/chain.h"
#include "lib/pki/decode.h"
#include "lib/pki/encode.h"
#include "lib/pki/text.h"

namespace {

using fstore::PkiObject;
using fstore::PkiPart;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

bool isPlain(char c) {
    return c > ' ' && c <= '~' && c != '/';
}

void checkObject(const PkiObject& object) {
    const PkiObject again = fstore::readPkiObject(object.kind, object.der);
    require(again.attributes == object.attributes && again.sha256 == object.sha256);
    for (const fstore::PkiAttribute& attribute : object.attributes) {
        if (const auto* const text = std::get_if<std::string>(&attribute.value)) {
            require(!text->empty() && fstore::isUtf8(*text) && text->front() != ' ');
            require(text->find_first_of(std::string("\n\r\0", 3)) == std::string::npos);
        }
    }
    (void)fstore::pemOf(object.kind, object.der);
    (void)fstore::chainOf(object.der, {object.der});
}

void checkName(const PkiObject& object, const std::string& label) {
    const std::string name = fstore::recordNameFor(object, label);
    require(name.size() > 9 && name.size() <= 64 + 9 && name.front() != '.' && name.front() != '-');
    for (const char c : name) {
        require(isPlain(c));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fstore::SecretText password("secret");
    const auto parts = fstore::decodePki(std::span(data, size),
                                         []() -> const fstore::SecretText& { return password; });
    require(!parts.empty());
    for (const PkiPart& part : parts) {
        const std::string label = fstore::attributeText(part.label);
        require(label.find('\n') == std::string::npos);
        if (const auto* const object = std::get_if<PkiObject>(&part.content)) {
            checkObject(*object);
            checkName(*object, part.label);
        }
    }
    return 0;
}
