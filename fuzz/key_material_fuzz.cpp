// Any bytes in a key's place: what is read as a key can be written in each form that it
// has, and read again as the same.
#include <string>

#include "fuzz/input.h"
#include "modules/pkixkey/key.h"
#include "modules/pkixkey/pkey_io.h"

namespace {

constexpr PkeyForm kForms[] = {PkeyForm::kPrivateKeyInfo, PkeyForm::kPublicKeyInfo, PkeyForm::kRaw};

Bytes view(const std::string& bytes) {
    return {reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()};
}

std::string written(const AnyPkey& key, PkeyForm form) {
    WipedBytes bytes;
    const Status status = writePkey(key, form, bytes);
    require(status == kOk || (status == kEnd && !key.isPrivate));
    return {reinterpret_cast<const char*>(bytes.view().data()), bytes.view().size()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const PkeyForm form = kForms[input.below(3)];
    const auto type = static_cast<TKey::key_type_t>(input.byte());
    const std::string bytes = input.rest();
    AnyPkey key;
    if ((type != TKey::kNone && !Key::isKnown(type)) ||
        (type == TKey::kNone && form == PkeyForm::kRaw) ||
        readPkey(form, type, view(bytes), key) != kOk) {
        return 0;
    }
    require(type == TKey::kNone || key.type == type);
    for (const PkeyForm each : kForms) {
        if (each == PkeyForm::kRaw && key.type == TKey::kEd25519 && !key.isPrivate) {
            continue;  // 32 bytes as well, and read as the private key that they could be
        }
        const std::string text = written(key, each);
        if (text.empty()) {
            continue;
        }
        AnyPkey again;
        require(readPkey(each, key.type, view(text), again) == kOk);
        require(again.type == key.type);
        require(written(again, each) == text);
    }
    WipedBytes bits;
    require(publicBits(key, bits) == kOk && !bits.view().empty());
    return 0;
}
