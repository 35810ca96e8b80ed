#include "lib/work/key_states.h"

#include "lib/records/attributes.h"

namespace fstore {
namespace {

// The one of the two that is later by this time; the first may be null.
const RecordInfo* laterOf(const RecordInfo* a, const RecordInfo& b,
                          std::optional<std::int64_t> RecordInfo::*time) {
    return a == nullptr || b.*time > a->*time ? &b : a;
}

// A certificate that the key signed itself is no answer.
bool answers(const RecordInfo& certificate, const RecordInfo& request) {
    return certificate.subject != certificate.issuer && certificate.imported >= request.imported;
}

}  // namespace

KeyStates::KeyStates(const std::vector<RecordInfo>& records) {
    for (const RecordInfo& info : records) {
        if (info.kind == Kind::kKey && !info.keySha256.empty()) {
            states_.try_emplace(info.keySha256);
        }
    }
    const auto stateOf = [&](const RecordInfo& info, Kind kind) -> KeyState* {
        const auto found = info.kind == kind ? states_.find(info.keySha256) : states_.end();
        return found != states_.end() ? &found->second : nullptr;
    };
    for (const RecordInfo& info : records) {
        KeyState* const certified = info.notAfter ? stateOf(info, Kind::kCertificate) : nullptr;
        if (certified != nullptr) {
            certified->certificate = laterOf(certified->certificate, info, &RecordInfo::notBefore);
        }
        KeyState* const requested = info.imported ? stateOf(info, Kind::kRequest) : nullptr;
        if (requested != nullptr) {
            requested->request = laterOf(requested->request, info, &RecordInfo::imported);
            requested->isOpen = true;
        }
    }
    for (const RecordInfo& info : records) {
        KeyState* const state = stateOf(info, Kind::kCertificate);
        if (state != nullptr && state->isOpen && answers(info, *state->request)) {
            state->isOpen = false;
        }
    }
}

const KeyState* KeyStates::find(const RecordInfo& info) const {
    const auto found = states_.find(info.keySha256);
    return found != states_.end() ? &found->second : nullptr;
}

}  // namespace fstore
