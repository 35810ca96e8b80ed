#include "lib/database/unlock.h"

#include <utility>
#include <vector>

#include <fmt/format.h>

#include "lib/base/error.h"
#include "lib/base/recovery_key.h"

namespace fstore {
namespace {

// The old secret of a change that took effect, and was interrupted afterwards.
bool opensOldSet(const Protection& protection, const UnlockSecret& secret) {
    return protection.isUnfinished() && !protection.isUndone() &&
           openSet(protection.record.sets[0], protection.record.db, secret).has_value();
}

[[noreturn]] void failOnWrong(const UnlockSecret& secret, const Place& place,
                              const char* also = "") {
    const auto name = [&] {
        switch (secret.kind) {
            case UnlockSecret::Kind::kPassword:
                return "password";
            case UnlockSecret::Kind::kRecovery:
                return "recovery key";
            case UnlockSecret::Kind::kFile:
                return "key file";
            case UnlockSecret::Kind::kP:
                break;
        }
        return "key";
    };
    const auto mistyping = secret.kind == UnlockSecret::Kind::kPassword
                               ? mistypingIn(secret.text.view())
                               : std::nullopt;
    throw Failure(kWrongPassword,
                  fmt::format("wrong {} for the database in {}{}{}", name(), place.describe(), also,
                              mistyping ? "; as a recovery key: " + *mistyping : ""),
                  place.folder);
}

// While the record "key" is lost. A slot that is damaged in one set says nothing about the others.
std::vector<Unlocked> openCandidates(const Protection& protection, const UnlockSecret& secret) {
    std::vector<Unlocked> all;
    std::optional<Failure> damage;
    for (const Protection::Candidate& candidate : protection.candidates) {
        try {
            if (auto opened = openSet(candidate.set, candidate.db, secret)) {
                all.push_back(std::move(*opened));
            }
        } catch (const Failure& failure) {
            if (failure.status() != kMalformed) {
                throw;
            }
            damage = failure;
        }
    }
    if (all.empty() && damage) {
        throw Failure(*damage);
    }
    return all;
}

Unlocked unlockWithoutKey(const Protection& protection, const UnlockSecret& secret,
                          const Place& place) {
    std::vector<Unlocked> all = openCandidates(protection, secret);
    if (all.empty()) {
        failOnWrong(secret, place);
    }
    Unlocked first = std::move(all.front());
    for (std::size_t i = 1; i < all.size(); ++i) {
        first.rivals.push_back({std::move(all[i].p), all[i].slot});
    }
    return first;
}

}  // namespace

Unlocked unlock(const Protection& protection, const UnlockSecret& secret, const Place& place) {
    if (protection.isKeyLost()) {
        return unlockWithoutKey(protection, secret, place);
    }
    if (auto opened = openSet(protection.inForce, protection.record.db, secret)) {
        return std::move(*opened);
    }
    if (opensOldSet(protection, secret)) {
        throw Failure(kWrongPassword,
                      "the new password is in force; give it, or another slot, and what is "
                      "unfinished is finished or undone",
                      place.folder);
    }
    const bool noCopies = protection.record.sets.empty() && protection.hasPassword();
    failOnWrong(secret, place,
                noCopies ? "; or its slots are lost, the records ./kdf and ./kdf-copy: then "
                           "`fstore key reset` makes new ones from the database's key"
                         : "");
}

Unlocked askForP(const Protection& protection, const Place& place, Observer& observer,
                 const SecretGiver& give) {
    if (!protection.hasPassword()) {
        observer.warn(
            fmt::format("the database in {} has no password; set one with `fstore "
                        "passwd`",
                        place.describe()));
        return {};
    }
    if (protection.inForce.line && protection.inForce.line->form == Slot::Form::kRaw) {
        observer.warn(fmt::format(
            "the database in {} has no slots: its own key is the password, and a short one is "
            "cheap to guess; protect it with `fstore passwd`",
            place.describe()));
    }
    return unlock(protection, give(), place);
}

Unlocked askForP(const Protection& protection, const Place& place, Observer& observer) {
    return askForP(protection, place, observer, [&observer] {
        UnlockSecret secret;
        secret.text = observer.password();
        return secret;
    });
}

}  // namespace fstore
