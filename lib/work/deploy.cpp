#include "lib/work/deploy.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <string_view>

#include <fmt/format.h>

#include "lib/base/bytes.h"
#include "lib/base/files.h"
#include "lib/pki/encode.h"
#include "lib/work/object_record.h"
#include "lib/work/reference.h"
#include "lib/work/select.h"

namespace fstore {
namespace {

// Adds to what goes into the file.
void add(std::vector<SwitchedFile>& files, const std::string& name,
         std::span<const unsigned char> bytes, mode_t mode) {
    auto file = std::ranges::find(files, name, &SwitchedFile::name);
    if (file == files.end()) {
        file = files.insert(file, {name, {}, mode});
    }
    file->bytes.insert(file->bytes.end(), bytes.begin(), bytes.end());
    file->mode = std::min(file->mode, mode);  // a secret in it makes all of it one
}

SecretBytes pemOfRecord(Database& database, const RecordInfo& info) {
    return pemOf(info.kind, readObject(database, info.address).body());
}

// The kinds of the PEM blocks, of certificates that follow one another once; nothing for a text
// that has anything else. Views into the text, which may be a secret.
std::optional<std::vector<std::string_view>> kindsOf(std::string_view text) {
    constexpr std::string_view kBegin = "-----BEGIN ", kEnd = "-----END ", kDashes = "-----\n";
    std::vector<std::string_view> kinds;
    while (!text.empty()) {
        if (!text.starts_with(kBegin)) {
            return std::nullopt;
        }
        text.remove_prefix(kBegin.size());
        const std::string_view kind = text.substr(0, text.find_first_of("-\n"));
        text.remove_prefix(kind.size());
        const std::size_t end = text.find(kEnd);
        if (!text.starts_with(kDashes) || end == std::string_view::npos ||
            text.substr(kDashes.size(), end - kDashes.size()).find('-') != std::string_view::npos) {
            return std::nullopt;
        }
        text.remove_prefix(end + kEnd.size());
        if (!text.starts_with(kind) || !text.substr(kind.size()).starts_with(kDashes)) {
            return std::nullopt;
        }
        text.remove_prefix(kind.size() + kDashes.size());
        if (kinds.empty() || kinds.back() != kind || kind != "CERTIFICATE") {
            kinds.push_back(kind);
        }
    }
    return kinds;
}

std::string_view textOf(const SecretBytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// A name that was mistyped may be that of a key that is nowhere else.
void refuseOther(const SwitchedFiles& place, const SwitchedFile& file) {
    const std::optional<SecretBytes> present = place.file();
    if (present && !present->empty() && kindsOf(textOf(*present)) != kindsOf(textOf(file.bytes))) {
        throw Failure(kInvalid,
                      fmt::format("{} already exists, and has something else than deploy writes "
                                  "there; move it aside, or name another file",
                                  file.name),
                      Advice{"--force replaces it"}, file.name);
    }
}

// Puts back what was there before the reload failed, and reports what came of it.
[[noreturn]] void rollBack(SwitchedFiles& place, const Reload& reload, const std::string& why) {
    const std::string what = fmt::format("the reload failed: {}", why);
    if (!place.restore()) {
        place.settle();
        throw Failure(kForeign, what + "; there were no files before, so the new ones are removed");
    }
    if (const auto again = reload()) {
        throw Failure(kForeign,
                      fmt::format("{}; the files from before are back, but their reload failed, "
                                  "too: {}; see to the program, then deploy again",
                                  what, *again));
    }
    place.settle();
    throw Failure(kForeign, what + "; the files from before are back, and loaded again");
}

}  // namespace

std::vector<std::string> namesOf(const DeployRules& rules) {
    if (!rules.ref && !rules.key) {
        throw Failure(kUsage,
                      "name the file for the key's reference with --ref, or the file for "
                      "the key itself with --key");
    }
    if (rules.ref == rules.key) {
        throw Failure(kUsage, "--ref and --key name one file, which would then have two keys");
    }
    std::vector<std::string> names{rules.chain};
    for (const auto& name : {rules.ref, rules.key}) {
        if (name && std::ranges::find(names, *name) == names.end()) {
            names.push_back(*name);
        }
    }
    return names;
}

Pair pairFor(Database& database, const DeployRules& rules) {
    Selected selected = select(database, rules.selector);
    const mode_t mode = rules.isPrivate ? kReadableByOwner : kReadableByAll;
    Pair pair;
    add(pair.files, rules.chain, pemOfRecord(database, selected.certificate), mode);
    for (const RecordInfo& issuer : selected.issuers) {
        add(pair.files, rules.chain, pemOfRecord(database, issuer), mode);
    }
    if (rules.ref) {
        const RecordUri uri{selected.key.address.print(), std::nullopt};
        add(pair.files, *rules.ref, bytesOf(referenceOf(uri)), mode);
    }
    if (rules.key) {
        add(pair.files, *rules.key, pemOfRecord(database, selected.key), kReadableByOwner);
    }
    pair.certificate = std::move(selected.certificate);
    pair.key = std::move(selected.key);
    pair.leftOut = std::move(selected.leftOut);
    pair.warnings = std::move(selected.warnings);
    return pair;
}

Deployed deploy(SwitchedFiles& place, const std::vector<SwitchedFile>& files, const Reload& reload,
                Present present) {
    const bool held = place.hold(files);
    if (!held && present == Present::kOwn) {
        refuseOther(place, files.front());
    }
    if (!held) {
        // Without a reload there is nothing that may fail, and nothing to finish.
        place.replace(files, reload ? SwitchedFiles::Before::kKept : SwitchedFiles::Before::kGone);
    }
    Deployed done{.isReplaced = !held};
    if (!place.isPending()) {
        return done;
    }
    if (!reload) {
        done.isLoadingDue = true;
        return done;
    }
    if (const auto why = reload()) {
        rollBack(place, reload, *why);
    }
    place.settle();
    done.isLoaded = true;
    return done;
}

}  // namespace fstore
