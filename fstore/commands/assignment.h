// "NAME[:TYPE]=VALUE", as `fstore set` takes it.
#ifndef FSTORE_COMMANDS_ASSIGNMENT_H
#define FSTORE_COMMANDS_ASSIGNMENT_H

#include <string>
#include <string_view>

#include "cmn/secret_bytes.h"
#include "fstore/terminal/standard_input.h"
#include "lib/records/record.h"

namespace fstore {

// An attribute's new value. The text that it came from may contain a secret, so messages repeat
// only what comes before the "=".
struct Assignment {
    unsigned int id = 0;
    unsigned int type = 0;
    SecretBytes value;  // as the type stores it
    std::string name;   // of the attribute, as it was given

    // Reads "label=Web server", "0x8001:number=5", "0x8002:binary=00ff" and
    // "0x8003=@FILE": the contents of a file, of which a text loses the last line feed. A
    // value that begins with "@" is written "@@". Opens the file. Throws kInvalid.
    static Assignment parse(const std::string& text, StandardInput& input);

    // Gives the record this one attribute with the id, in the place of the first that has it;
    // encrypted if `encrypt` is set or the present one is encrypted. Throws kInvalid for a text
    // that no record can hold in plain form.
    void applyTo(Record& record, bool encrypt) const;
};

// The id of an attribute that a user may change: the label, and ids from 0x8000. Throws
// kInvalid for others.
unsigned int parseEditableId(std::string_view text);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_ASSIGNMENT_H
