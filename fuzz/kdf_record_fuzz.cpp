// Any text in a slot's place of a protected password: what is read is within the
// bounds and prints as it stood there, and every slot within the bounds is read as
// itself.
#include <algorithm>
#include <string>

#include "fuzz/input.h"
#include "lib/database/slots.h"

namespace {

using fstore::Slot;

bool isWithinBounds(const Slot& slot) {
    return slot.ln >= Slot::kLeastLn && slot.ln <= Slot::kMostLn && slot.r >= Slot::kLeastR &&
           slot.r <= Slot::kMostR && slot.p >= Slot::kLeastP && slot.p <= Slot::kMostP;
}

// Digits may have been typed in capitals; nothing else may.
std::string withSmallDigits(std::string text) {
    bool isValue = false;
    for (char& c : text) {
        isValue = c == '=' || (isValue && c != ' ');
        if (isValue && c >= 'A' && c <= 'F') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

void checkText(const std::string& text) {
    const auto slot = fstore::parseSlot(text);
    if (slot) {
        require(isWithinBounds(*slot));
        require(fstore::printSlot(*slot) == withSmallDigits(text));
    }
}

template <std::size_t N>
void fill(std::array<unsigned char, N>& bytes, Input& input) {
    std::generate(bytes.begin(), bytes.end(),
                  [&] { return static_cast<unsigned char>(input.byte()); });
}

void checkSlot(Input& input) {
    Slot slot;
    slot.form = static_cast<Slot::Form>(input.below(3));
    const bool hasCost = slot.form == Slot::Form::kScrypt;
    if (hasCost) {
        slot.ln = input.byte();
        slot.r = input.byte();
        slot.p = input.byte();
        fill(slot.salt, input);
    }
    if (slot.form != Slot::Form::kNone) {
        fill(slot.digest, input);
    }
    std::string text = fstore::printSlot(slot);
    const auto again = fstore::parseSlot(text);
    require(again.has_value() == isWithinBounds(slot));
    require(!again || *again == slot);
    if (!text.empty()) {  // and with one byte changed
        text[input.byte() % text.size()] = static_cast<char>(input.byte());
        checkText(text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    if (input.byte() % 2 == 0) {
        checkText(input.rest());
    } else {
        checkSlot(input);
    }
    return 0;
}
