#include "lib/work/put.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <fmt/format.h>
#include <openssl/rand.h>

#include "lib/base/error.h"
#include "lib/base/sha256.h"
#include "lib/base/time.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"
#include "lib/records/kept_type.h"
#include "lib/records/lookup.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "lib/work/change.h"
#include "lib/work/get.h"

namespace fstore {
namespace {

[[noreturn]] void refuseEmptyPlain() {
    throw Failure(kInvalid, "an empty body cannot be stored in plain form",
                  Advice{"leave out --plain-body"});
}

void refuseRules(const Address& address, const SecretBytes& bytes, const PutRules& rules) {
    refuseInternal(address);
    if (bytes.empty() && rules.plain) {
        refuseEmptyPlain();
    }
}

void requireRaw(const Record& record) {
    const Kind kind = infoOf(record).kind;
    if (kind != Kind::kRaw && kind != Kind::kUnknown) {
        const std::string address = record.address().print();
        throw Failure(kInvalid,
                      fmt::format("{} is a {}; replace it with `fstore import --replace`, or "
                                  "remove it with `fstore rm`",
                                  address, nameOf(kind)),
                      address);
    }
}

Record newRecord(const Address& address) {
    requireFolder(address.folder);
    Record record(address);
    record.setNumber(attr::kSchema, 1);
    record.setNumber(attr::kKind, static_cast<unsigned int>(Kind::kRaw));
    return record;
}

void makeReadable(Database& database, Record& record) {
    if (record.hasSecrets()) {
        database.needSecrets();
        record.decrypt();
    }
}

// The record that gets the body, readable: what is there, or a new one.
Record recordFor(Database& database, const Address& address) {
    if (!Record::isThere(address)) {
        return newRecord(address);
    }
    Record record = Record::read(address);
    requireRaw(record);
    makeReadable(database, record);
    return record;
}

// A descriptor names a body file that no other state of the record has had.
std::vector<unsigned char> stateOf(const Address& address) {
    const Sha256Digest digest = sha256(readDescriptorBytes(descriptorPath(address)));
    return {digest.begin(), digest.end()};
}

void refuseOtherThan(const Address& address, const std::vector<unsigned char>& replaced) {
    requireRaw(Record::read(address));  // before anybody is asked whether to replace it
    std::vector<unsigned char> state = stateOf(address);
    if (state != replaced) {
        throw RecordExists(address, std::move(state));
    }
}

void giveBody(Record& record, std::span<const unsigned char> bytes, bool plain) {
    // A plaintext digest would let anyone test guesses of a weak secret.
    record.setBinary(attr::kSha256, sha256(bytes), /*encrypted=*/!plain);
    record.setText(attr::kImported, printTime(now()));
    record.setBody(bytes, !plain);
}

// The one attribute with this id, or none.
std::optional<unsigned int> onlyWithId(const Record& record, unsigned int id) {
    std::optional<unsigned int> only;
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.id(i) == id) {
            if (only) {
                return std::nullopt;
            }
            only = i;
        }
    }
    return only;
}

bool isKeptSecret(const Record& record, unsigned int id) {
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.id(i) == id && record.isEncrypted(i)) {
            return true;
        }
    }
    return false;
}

bool wantsSecrecy(const RecordChange& change) {
    return (change.body && !change.plain) ||
           std::ranges::any_of(change.attributes, &AttributeChange::encrypted);
}

void refuseChange(const Address& address, const RecordChange& change) {
    refuseInternal(address);
    if (change.body && change.body->empty() && change.plain) {
        refuseEmptyPlain();
    }
    const bool isThere = Record::isThere(address);
    if (change.presence == RecordChange::Presence::kNew && isThere) {
        throw RecordExists(address);
    }
    if (change.presence == RecordChange::Presence::kThere && !isThere) {
        throw NoRecord(address.print());
    }
}

Record recordFor(Database& database, const Address& address, const RecordChange& change) {
    if (change.body || !Record::isThere(address)) {
        return recordFor(database, address);
    }
    Record record = Record::read(address);
    makeReadable(database, record);
    return record;
}

}  // namespace

RecordExists::RecordExists(const Address& address, std::vector<unsigned char> state)
    : Failure(kInvalid, fmt::format("there is a record {} already", address.print()),
              address.print()),
      state_(std::move(state)) {}

Editable readEditable(Database& database, const Address& address) {
    refuseInternal(address);
    if (!Record::isThere(address)) {
        requireFolder(address.folder);
        database.requireSecrecy();
        database.needSecrets();
        return {};
    }
    requireRaw(Record::read(address));
    const Record record = readWhole(database, address);
    return {.isThere = true,
            .plain = record.hasBody() && !record.isBodyEncrypted(),
            .body = {record.body().begin(), record.body().end()},
            .state = stateOf(address)};
}

SecretBytes randomBytes(std::size_t size) {
    SecretBytes bytes(size);
    if (RAND_bytes(bytes.data(), static_cast<int>(size)) != 1) {
        throw Failure(kIo, "cannot make random bytes: OpenSSL has no random numbers");
    }
    return bytes;
}

void putBody(Database& database, const Address& address, SecretBytes& bytes,
             const PutRules& rules) {
    refuseRules(address, bytes, rules);
    if (rules.isNew && Record::isThere(address)) {
        refuseOtherThan(address, rules.replaced);
    }
    if (!rules.plain) {
        database.requireSecrecy();
    }
    Record record = recordFor(database, address);
    giveBody(record, bytes, rules.plain);
    if (!rules.label.empty()) {
        AttributeChange{attr::kLabel, kTypeText, {rules.label.begin(), rules.label.end()}}.applyTo(
            record);
    }
    bytes = SecretBytes();
    BodyOwners owners(Lookup::current());
    record.write(owners);
}

bool isEditable(unsigned int id) {
    return id == attr::kLabel || id >= attr::kFirstOfUser;
}

void AttributeChange::applyTo(Record& record) const {
    if (isRemoval) {
        if (record.removeAll(id) == 0) {
            throw Failure(kEnd,
                          fmt::format("{} has no attribute 0x{:x}; nothing was changed",
                                      record.address().print(), id),
                          record.address().print());
        }
        keepType(record, id, kTypeBinary);
        return;
    }
    const bool secret = encrypted || isKeptSecret(record, id);
    if (id == attr::kLabel && type == kTypeText && !secret) {
        record.setLabel(asText(value));
        return;
    }
    const unsigned int stored = secret ? kTypeBinary : type;
    if (id != attr::kLabel) {
        keepType(record, id, secret && isOfType(type, value) ? type : kTypeBinary);
    }
    const auto present = onlyWithId(record, id);
    if (!present || record.type(*present) != stored) {
        (void)record.removeAll(id);
    }
    switch (stored) {
        case kTypeNumber: {
            std::uint32_t number = 0;
            std::memcpy(&number, value.data(), sizeof number);
            record.setNumber(id, number);
            break;
        }
        case kTypeBinary:
            record.setBinary(id, value, secret);
            break;
        case kTypeString: {
            std::string_view text = asText(value);
            if (text.ends_with('\0')) {  // as it is read
                text.remove_suffix(1);
            }
            record.setString(id, text);
            break;
        }
        default:
            record.setText(id, asText(value));
            break;
    }
}

Record changeRecord(Database& database, const Address& address, const RecordChange& change) {
    refuseChange(address, change);
    if (wantsSecrecy(change)) {
        database.requireSecrecy();
        database.needSecrets();
    }
    Record record = recordFor(database, address, change);
    if (change.body) {
        giveBody(record, *change.body, change.plain);
    }
    for (const AttributeChange& attribute : change.attributes) {
        attribute.applyTo(record);
    }
    BodyOwners owners(Lookup::current());
    record.write(owners);
    return record;
}

}  // namespace fstore
