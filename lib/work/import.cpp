#include "lib/work/import.h"

#include <algorithm>
#include <iterator>
#include <span>

#include <fmt/format.h>

#include "format/layout.h"
#include "format/record_name.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/time.h"
#include "lib/records/catalogue.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/records/record_info.h"
#include "lib/work/meant.h"
#include "lib/work/object_record.h"

namespace fstore {
namespace {

const std::string kLocal(folderFor(Kind::kCertificate, true));
const std::string kRemote(folderFor(Kind::kCertificate, false));

// The one key among the objects; null for none or several.
const PkiObject* onlyKey(const std::vector<const PkiObject*>& objects) {
    const auto isKey = [](const PkiObject* object) { return object->kind == Kind::kKey; };
    if (std::ranges::count_if(objects, isKey) != 1) {
        return nullptr;
    }
    return *std::ranges::find_if(objects, isKey);
}

// The records that may be one of the objects, or have the key of one; also those that cannot be
// read, or not without the password, for what is said about them.
Lookup::Addresses meantBy(const std::vector<const PkiObject*>& objects, Lookup& lookup) {
    std::set<Address> seen;
    std::vector<Address> meant;
    const auto add = [&](Lookup::Addresses found) {
        for (Address& address : found ? *found : std::vector<Address>()) {
            if (seen.insert(address).second) {
                meant.push_back(std::move(address));
            }
        }
        return found.has_value();
    };
    for (const PkiObject* const object : objects) {
        if (!add(lookup.withObject(object->kind, toHex(object->sha256))) ||
            !add(lookup.keysWith(toHex(object->keySha256)))) {
            return std::nullopt;
        }
    }
    if (!add(lookup.unsure(/*unlocked=*/true))) {
        return std::nullopt;
    }
    return meant;
}

bool mayBeOne(const RecordHead& head, const std::set<Kind>& kinds) {
    return hidesItsDescription(head) && kinds.contains(infoOf(head).kind);
}

std::set<Kind> kindsOf(const std::vector<const PkiObject*>& objects) {
    std::set<Kind> kinds;
    for (const PkiObject* const object : objects) {
        kinds.insert(object->kind);
    }
    return kinds;
}

// Whether a record may be one of the objects that only the password shows.
bool isOneHidden(Database& database, const std::vector<const PkiObject*>& objects) {
    const Hold hold = database.enter(Access::kRead);
    const std::set<Kind> kinds = kindsOf(objects);
    Unread unread;  // the import tells of these
    const auto ask = [](Lookup& lookup) { return lookup.unsure(/*unlocked=*/true); };
    return std::ranges::any_of(knownOrAll(ask, [&] { return allRecords(&unread); }),
                               [&](const Address& address) {
                                   try {
                                       return mayBeOne(RecordHead::read(address), kinds);
                                   } catch (const Failure&) {
                                       return false;
                                   }
                               });
}

// Whether nothing would be lost with one of the two. `one` is readable.
bool isSameRecord(const Record& one, Record other) {
    if (one.hasSecrets() != other.hasSecrets()) {
        return false;
    }
    other.decrypt();
    const auto alike = [](std::span<const unsigned char> a, std::span<const unsigned char> b) {
        return std::ranges::equal(a, b);
    };
    bool same = one.count() == other.count() && one.hasBody() == other.hasBody() &&
                one.isBodyEncrypted() == other.isBodyEncrypted() && alike(one.body(), other.body());
    for (unsigned int i = 0; same && i < one.count(); ++i) {
        same = one.type(i) == other.type(i) && one.id(i) == other.id(i) &&
               one.isEncrypted(i) == other.isEncrypted(i) && alike(one.bytes(i), other.bytes(i));
    }
    return same;
}

}  // namespace

void requireName(const ImportRules& rules) {
    if (!rules.name) {
        return;
    }
    // As a part of an address it obeys the rules of addresses.
    const Address place = parseNewAddress(joinPath(layout::kKeys.name(), *rules.name));
    if (place.folder != layout::kKeys.name()) {
        throw Failure(kInvalid, "the name of a new record has no folder in it",
                      Advice{"--to names the folder"});
    }
}

int importRank(const PkiPart& part) {
    constexpr Kind kOrder[] = {Kind::kKey, Kind::kCertificate, Kind::kCrl, Kind::kRequest};
    const auto* const object = std::get_if<PkiObject>(&part.content);
    const auto* const last = std::end(kOrder);
    return static_cast<int>((object != nullptr ? std::find(kOrder, last, object->kind) : last) -
                            kOrder);
}

Hold enterForImport(Database& database, const ImportRules& rules,
                    const std::vector<const PkiObject*>& objects) {
    const bool secret = std::ranges::any_of(
        objects, [&](const PkiObject* object) { return wantsSecrecy(*object, rules); });
    const bool opens = secret || rules.replace || (rules.unlock && isOneHidden(database, objects));
    Hold hold = database.enter(Access::kChange, needFor(opens));
    if (secret) {
        database.requireSecrecy();
    }
    return hold;
}

bool wantsSecrecy(const PkiObject& object, const ImportRules& rules) {
    return object.kind == Kind::kKey || rules.encrypt;
}

Importer::Importer(Database& database, ImportRules rules,
                   const std::vector<const PkiObject*>& objects)
    : database_(database), rules_(std::move(rules)), kinds_(kindsOf(objects)) {
    if (rules_.name) {
        const PkiObject* const key = onlyKey(objects);
        if (objects.size() == 1) {
            namedAlone_ = objects[0];
        } else if (key != nullptr) {
            named_ = toHex(key->keySha256);
        } else {
            throw Failure(kInvalid, fmt::format("a name is for one object, or for one key and what "
                                                "belongs to it; there are {} objects",
                                                objects.size()));
        }
    }
    Unread unread;
    const auto ask = [&](Lookup& lookup) { return meantBy(objects, lookup); };
    for (const Address& address : knownOrAll(ask, [&] { return allRecords(&unread); })) {
        learn(address);
    }
    for (const Failure& failure : unread) {
        database_.observer().warn(failure.what());
    }
    if (unknown_ != 0) {
        database_.observer().warn(
            fmt::format("encrypted records that could be what is imported: {}; only with the "
                        "password it is known whether it is there already",
                        unknown_));
    }
}

void Importer::learn(const Address& address) {
    try {
        const RecordHead head = RecordHead::read(address);
        const bool isHidden = hidesItsDescription(head);
        unknown_ += !database_.isOpen() && mayBeOne(head, kinds_) ? 1U : 0U;
        if (database_.isOpen() && head.hasSecrets()) {
            Record record = readUnasked(head);
            record.decrypt();
            (void)index(infoOf(record), isHidden);
        } else {
            (void)index(infoOf(head), isHidden);
        }
    } catch (const TooLarge& failure) {
        database_.observer().warn(failure.what());
    } catch (const Failure&) {
        learnDamaged(address);
    }
}

void Importer::learnDamaged(const Address& address) {
    try {
        const RecordInfo info = infoOf(RecordHead::readWithoutBody(address));
        if (!info.sha256.empty()) {
            damaged_[{info.kind, info.sha256}].push_back(address);
        }
    } catch (const Failure&) {
        // nobody knows what it was; ls and check tell about it
    }
}

RecordInfo Importer::index(RecordInfo info, bool isHidden) {
    if (!info.sha256.empty()) {
        std::vector<Address>& places = present_[{info.kind, info.sha256}];
        if (std::ranges::find(places, info.address) == places.end()) {
            places.push_back(info.address);
        }
    }
    if (isHidden) {
        hidden_.insert(info.address);
    }
    if (info.kind == Kind::kKey) {
        keys_.insert(info.keySha256);
    }
    return info;
}

bool Importer::isKnown(const Identity& identity) const {
    return present_.contains(identity) || damaged_.contains(identity);
}

bool Importer::hasKey(const PkiObject& object) const {
    return keys_.contains(toHex(object.keySha256));
}

Address Importer::addressFor(const PkiObject& object, const std::string& label) const {
    Address address{rules_.folder.value_or(std::string(folderFor(object.kind, hasKey(object)))),
                    {}};
    const bool isNamed =
        rules_.name && (&object == namedAlone_ || toHex(object.keySha256) == named_);
    if (isNamed) {
        address.name = *rules_.name;
    } else if (rules_.encrypt) {
        // Its own name would tell what is in it, or the label.
        PkiObject nameless;
        nameless.kind = object.kind;
        nameless.sha256 = object.sha256;
        address.name = recordNameFor(nameless, {});
    } else {
        address.name = recordNameFor(object, label);
    }
    return address;
}

Importer::Result Importer::import(const PkiObject& object, const std::string& fileLabel) {
    const std::string& label = rules_.label.empty() && !rules_.encrypt ? fileLabel : rules_.label;
    const Identity identity{object.kind, toHex(object.sha256)};
    Address address = addressFor(object, label);
    if (!isKnown(identity) && Record::isThere(address)) {
        learn(address);  // what was asked may not know it: an index that lacks it
    }
    const auto damaged = damaged_.find(identity);
    if (rules_.replace && damaged != damaged_.end()) {
        const Address place = damaged->second.front();
        damaged_.erase(damaged);
        return replace(object, label, place);
    }
    const auto found = present_.find(identity);
    if (found == present_.end() && damaged != damaged_.end()) {
        refuseDamaged(object, damaged->second.front());
    }
    if (found == present_.end()) {
        return add(object, label, std::move(address));
    }
    warnOfDamaged(identity);
    if (rules_.replace) {
        Result replaced = replace(object, label, found->second.front());
        warnOfPlain(object, found->second);
        return replaced;
    }
    std::optional<Result> moved;
    if (object.kind == Kind::kCertificate && hasKey(object) && !rules_.folder) {
        moved = moveToKey(found->second);
    }
    warnOfPlain(object, found->second);
    return moved ? std::move(*moved)
                 : Result{Outcome::kPresent, infoOf(RecordHead::read(found->second.front()))};
}

Importer::Result Importer::add(const PkiObject& object, const std::string& label, Address address) {
    requireFolder(address.folder);
    if (Record::isThere(address)) {
        if (!rules_.replace) {
            throw Failure(
                kInvalid,
                fmt::format("{} already exists and {}", address.print(), obstacleAt(address)),
                Advice{"--replace replaces it"}, address.print());
        }
        return replace(object, label, address);
    }
    // What belongs to a key has its name, whatever that is.
    const bool isNamed = rules_.name && *rules_.name == address.name &&
                         !Record::isThere(Address{std::string(layout::kKeys.name()), address.name});
    if (rules_.refusesPatterns && isNamed) {
        refusePattern(address);
    }
    Record record(std::move(address));
    fill(record, object, label, rules_.encrypt);
    record.write();
    return {Outcome::kAdded, index(infoOf(record), rules_.encrypt)};
}

void Importer::warnOfPlain(const PkiObject& object, const std::vector<Address>& places) {
    const bool isOneHidden = std::ranges::any_of(
        places, [&](const Address& address) { return hidden_.contains(address); });
    for (const Address& address : places) {
        if ((rules_.encrypt || isOneHidden) && !hidden_.contains(address)) {
            database_.observer().warn(fmt::format(
                "{} {} in plain form; {}", address.print(),
                object.kind == Kind::kKey ? "describes this key"
                                          : fmt::format("has this {}", nameOf(object.kind)),
                isOneHidden ? "another record has it encrypted, and `fstore rm` removes this one"
                            : "--replace encrypts it"));
        }
    }
}

void Importer::refuseDamaged(const PkiObject& object, const Address& place) {
    throw Failure(
        kInvalid,
        fmt::format("{} is the record of this {}, but its body is missing or cannot be read",
                    place.print(), nameOf(object.kind)),
        Advice{"--replace restores it"}, place.print());
}

void Importer::warnOfDamaged(const Identity& identity) {
    const auto damaged = damaged_.find(identity);
    for (const Address& address :
         damaged != damaged_.end() ? damaged->second : std::vector<Address>()) {
        database_.observer().warn(
            fmt::format("{} is another record of this {}, and its body is missing or cannot be "
                        "read; --replace restores it",
                        address.print(), nameOf(identity.first)));
    }
}

// What is known of the record there, which is none of those of the object.
std::string Importer::obstacleAt(const Address& address) const {
    try {
        const bool isHidden = hidesItsDescription(RecordHead::readWithoutBody(address));
        return isHidden && !database_.isOpen()
                   ? "is encrypted: only the password shows whether it is this object"
                   : "is another object";
    } catch (const Failure&) {
        return "cannot be read, so it may be this object";
    }
}

Importer::Result Importer::replace(const PkiObject& object, const std::string& label,
                                   const Address& address) {
    Record record(address);
    bool encrypt = rules_.encrypt;
    try {
        Record old = Record::read(address);
        old.decrypt();
        encrypt = encrypt || hidesItsDescription(old);  // what is encrypted stays so
        record = std::move(old);
    } catch (const Failure& failure) {
        if (failure.status() == kNotOpen || failure.isDenied()) {
            throw;
        }
        auto [rest, isHidden] = restOf(address);
        record = std::move(rest);
        encrypt = encrypt || isHidden;
    }
    // What the user has noted stays.
    for (unsigned int id = attr::kSchema; id < attr::kFirstOfUser; ++id) {
        if (id != attr::kTypes && (id != attr::kLabel || !label.empty())) {
            (void)record.removeAll(id);
        }
    }
    fill(record, object, label, encrypt);
    record.write(owners_);
    return {Outcome::kReplaced, index(infoOf(record), encrypt)};
}

std::pair<Record, bool> Importer::restOf(const Address& address) {
    Record rest(address);
    bool isHidden = false;
    try {
        const RecordHead head = RecordHead::readWithoutBody(address);
        isHidden = hidesItsDescription(head);
        unsigned int lost = 0;
        for (unsigned int i = 0; i < head.count(); ++i) {
            const auto* const known = attr::find(head.id(i));
            if (head.isKnown(i)) {
                rest.add(head.type(i), head.id(i), head.bytes(i));
            } else if (known == nullptr || !known->isOfBody) {
                ++lost;
            }
        }
        if (lost != 0) {
            database_.observer().warn(fmt::format(
                "encrypted attributes of {} are lost with its body: {}", address.print(), lost));
        }
    } catch (const Failure&) {
        // of a damaged descriptor nothing stays
    }
    return {std::move(rest), isHidden};
}

void Importer::fill(Record& record, const PkiObject& object, const std::string& label,
                    bool encrypt) const {
    describe(record, object, encrypt);
    if (!label.empty() && encrypt) {
        (void)record.removeAll(attr::kLabel);
        const std::vector<unsigned char> bytes(label.begin(), label.end());
        record.setBinary(attr::kLabel, bytes, /*encrypted=*/true);
    } else if (!label.empty()) {
        record.setLabel(label);
    }
    record.setText(attr::kImported, printTime(now()));
    record.setBody(object.der, encrypt || wantsSecrecy(object, rules_));
}

// A certificate that was there without its key, into the folder of those with one; also
// the end of such a move that was broken off. What is there twice in other ways stays: each may
// have what the other has not.
std::optional<Importer::Result> Importer::moveToKey(std::vector<Address>& places) {
    const auto remote = std::ranges::find(places, kRemote, &Address::folder);
    const auto local = std::ranges::find(places, kLocal, &Address::folder);
    if (remote == places.end()) {
        return std::nullopt;
    }
    Record old = Record::read(*remote);
    if (old.hasSecrets() && !database_.isOpen()) {
        return std::nullopt;
    }
    old.decrypt();
    const Address address{kLocal, remote->name};
    const bool isNew = local == places.end();
    if (isNew) {
        if (Record::isThere(address)) {
            return std::nullopt;
        }
        old.copyTo(address).write();
    } else if (*local != address || !isSameRecord(old, Record::read(address))) {
        return std::nullopt;
    }
    (void)old.remove(owners_);  // what stays of it, `check` lists
    if (hidden_.erase(*remote) != 0) {
        hidden_.insert(address);
    }
    places.erase(remote);
    if (isNew) {
        places.push_back(address);
    }
    return Result{Outcome::kMoved, infoOf(Record::read(address))};
}

const char* nameOf(Importer::Outcome outcome) {
    switch (outcome) {
        case Importer::Outcome::kAdded:
            return "added";
        case Importer::Outcome::kPresent:
            return "present";
        case Importer::Outcome::kMoved:
            return "moved";
        case Importer::Outcome::kReplaced:
            break;
    }
    return "replaced";
}

}  // namespace fstore
