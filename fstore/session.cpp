#include "fstore/session.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

#include "cmn/cmn_gref.h"
#include "format/layout.h"
#include "format/record_name.h"
#include "fstore/password_change.h"
#include "host/store_host.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/text.h"
#include "lib/database/counting_service.h"
#include "lib/database/folders.h"
#include "lib/records/record.h"
#include "os/files.h"
#include "os/process.h"

namespace fstore {
namespace {

const Address kKdf{"", layout::kKdfRecord};
const Address kKey{"", layout::kKeyRecord};

[[noreturn]] void failOnKey(const std::string& what) {
    throw Failure(kNoDigest, what + "; restore the database from a backup", kKey.print());
}

// What the record "key" holds; none without the record.
std::optional<Digest> readKeyDigest() {
    if (!Record::isThere(kKey)) {
        return std::nullopt;
    }
    const auto bytes = Record::read(kKey).binary(layout::kDigestId);
    Digest digest;
    if (!bytes || bytes->size() != digest.size()) {
        failOnKey("the record ./key has no digest of the password");
    }
    std::copy(bytes->begin(), bytes->end(), digest.begin());
    return digest;
}

struct Kdf {
    std::vector<Slot> slots;
    bool keepOld = false;
};

Kdf readKdf() {
    if (!Record::isThere(kKdf)) {
        return {};
    }
    const Record record = Record::read(kKdf);
    Kdf kdf;
    for (const std::string& text : record.texts(layout::kSlotId)) {
        const auto slot = parseSlot(text);
        if (!slot) {
            throw Failure(kMalformed,
                          "the record ./kdf is damaged: a slot cannot be read, or its "
                          "cost is out of bounds; restore the database from a backup",
                          kKdf.print());
        }
        kdf.slots.push_back(*slot);
    }
    if (kdf.slots.empty() || kdf.slots.size() > 2) {
        throw Failure(kMalformed,
                      "the record ./kdf is damaged: it has neither one nor two slots; "
                      "restore the database from a backup",
                      kKdf.print());
    }
    kdf.keepOld = record.number(layout::kKeepOldId).value_or(0) != 0;
    return kdf;
}

bool isInForce(const Slot& slot, const std::optional<Digest>& key) {
    return slot.form == Slot::Form::kNone ? !key : key && slot.digest == *key;
}

// Without a record "kdf" the store's own records decide.
Slot slotOfStore(const std::optional<Digest>& key) {
    Slot slot;
    slot.form = key ? Slot::Form::kRaw : Slot::Form::kNone;
    slot.digest = key.value_or(Digest());
    return slot;
}

Protection::State stateOf(const Slot& slot) {
    switch (slot.form) {
        case Slot::Form::kNone:
            return Protection::State::kNone;
        case Slot::Form::kRaw:
            return Protection::State::kRaw;
        case Slot::Form::kScrypt:
            break;
    }
    return Protection::State::kScrypt;
}

// Whether a descriptor stands moved aside alone, as a write that was broken off
// between its two renames leaves it: listing and reading would put it back.
bool hasLoneSaved(const std::string& folder, const std::vector<FolderEntry>& entries) {
    return std::any_of(entries.begin(), entries.end(), [&](const FolderEntry& entry) {
        return hasMarker(entry.name, kOldMarker) &&
               !exists(joinPath(folderPath(folder), withoutMarker(entry.name, kOldMarker)));
    });
}

}  // namespace

// The modules, with the service that counts in front of the module's.
class Session::Host {
public:
    Host() {
        if (const Result started = modules_.start(); !started.ok()) {
            failWithStatus(
                started.status == kNoMemory ? kNoMemory : kNoObject,
                fmt::format("the store's modules cannot be loaded: {}", started.message));
        }
        ModuleManager& manager = modules_.manager();
        const unsigned int id = pkcs5ID.value();
        if (CMN_GuardedRef* const service = manager.moduleService(id)) {
            counting_ = new CountingService(static_cast<PKCS5_Interface&>(*service));
            manager.setService(id, counting_.get());
        }
    }
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host() { (void)modules_.stop(); }  // the process ends: nobody is left to be told

    CountingService& counting() { return *counting_.get(); }

private:
    CMN_GRefPtr<CountingService> counting_;  // outlives the modules
    StoreHost modules_;
};

Session::Session(const Globals& globals, Observer& observer)
    : globals_(globals), observer_(observer) {}

// The service goes before the modules that it comes from.
Session::~Session() {
    (void)service_.close();
    service_ = aFileStoreSrv(nullptr);
}

void Session::enter(Access access) {
    enterLocked(access);
    if (access == Access::kChange && protection_.isUnfinished()) {
        observer_.warn("the last change of the password was broken off; its last steps come first");
        open(access);
    }
}

void Session::open(Access access) {
    enterLocked(Access::kRead);
    for (;;) {
        const Slot slot = protection_.inForce;
        release();
        SecretText p = deriveForSlot();
        // What a change of the password left to do can be done now, with the password.
        enterLocked(protection_.isUnfinished() ? Access::kChange : access);
        if (protection_.inForce == slot) {
            reopen(std::move(p));
            break;
        }
    }
    if (protection_.isUnfinished()) {
        finishPasswordChange(*this);
        readProtection();
    }
}

void Session::enterFolder() {
    if (!exists(globals_.folder) && os::mkdir(globals_.folder.c_str(), S_IRWXU) != 0) {
        failWithErrno("make the folder", globals_.folder);
    }
    goToFolder();
    lock(os::LockKind::kExclusive);
}

void Session::enterNew() {
    enterFolder();
    startHost();
    recover();
}

void Session::release() {
    if (!os::unlockFile(locked_)) {
        failWithErrno("unlock", folderName());
    }
}

void Session::look(Access access) {
    goToFolder();
    startHost();
    lock(access == Access::kRead ? os::LockKind::kShared : os::LockKind::kExclusive);
    requireDatabase();
}

void Session::requireSecrecy() const {
    if (protection_.state == Protection::State::kNone) {
        throw Failure(kNotOpen,
                      fmt::format("the database in {} has no password, so nothing in it can be "
                                  "kept secret: `fstore init` or `fstore passwd` gives it one",
                                  folder()),
                      folderName());
    }
}

void Session::readProtection() {
    const Kdf kdf = readKdf();
    const std::optional<Digest> key = readKeyDigest();
    protection_ = {.state = Protection::State::kNone,
                   .slots = kdf.slots,
                   .inForce = slotOfStore(key),
                   .keepOld = kdf.keepOld};
    if (!kdf.slots.empty()) {
        const auto slot = std::find_if(kdf.slots.begin(), kdf.slots.end(),
                                       [&](const Slot& one) { return isInForce(one, key); });
        if (slot == kdf.slots.end()) {
            // Never tried: the empty password, which the store takes without "key".
            failOnKey(key ? "the record ./key does not belong to the record ./kdf"
                          : "the record ./key is missing beside the record ./kdf");
        }
        protection_.inForce = *slot;
    }
    protection_.state = stateOf(protection_.inForce);
}

void Session::reopen(SecretText p) {
    (void)service_.close();  // it may be closed
    const Status status = service_.open(p.c_str());
    if (status == kWrongPassword) {
        throw Failure(kWrongPassword,
                      fmt::format("the password is not that of the database in {}", folder()),
                      folderName());
    }
    check(status, fmt::format("cannot open the database in {}", folder()), folderName());
    p_ = std::move(p);
}

Status Session::recrypt(const SecretText& p) {
    const CountingService::Counting counting(host_->counting(), observer_);
    const Status status = service_.recrypt(p_.c_str(), p.c_str());
    return counting.wasCancelled() ? kInterrupted : status;
}

void Session::goToFolder() {
    if (locked_) {
        return;
    }
    if (!os::changeFolder(globals_.folder.c_str())) {
        failWithErrno("enter the folder", globals_.folder);
    }
    locked_ = os::openFile(".", O_RDONLY | O_DIRECTORY);
    if (!locked_) {
        failWithErrno("open the folder", globals_.folder);
    }
}

void Session::lock(os::LockKind kind) {
    switch (os::lockFile(locked_, kind, globals_.lockSeconds)) {
        case os::Locked::kYes:
            return;
        case os::Locked::kBusy:
            break;
        case os::Locked::kFailed:
            failWithErrno("lock the folder", folderName());
    }
    throw Failure(kAlreadyOpen,
                  fmt::format("another process holds the database in {}; try again later or wait "
                              "longer with --lock-timeout",
                              folder()),
                  folderName());
}

void Session::startHost() {
    if (!host_) {
        host_ = std::make_unique<Host>();
    }
}

void Session::requireDatabase() const {
    if (!folderState().hasDatabase()) {
        throw Failure(kMissing,
                      fmt::format("there is no database in {}: `fstore init` makes one, --dir "
                                  "names another folder",
                                  folder()),
                      folderName());
    }
}

// An unfinished copy is none of a reader's business.
bool Session::needsRepair() const {
    if (!folderState().live) {
        return true;
    }
    bool found = false;
    visitFolders([&](const std::string& folder, const std::vector<FolderEntry>& entries) {
        found = found || hasLoneSaved(folder, entries);
    });
    return found;
}

void Session::recover() {
    // The store goes on after a folder that it could not make, so errno tells of another.
    if (service_.prepareDBFolders() != kOk) {
        throw Failure(kIo,
                      fmt::format("cannot make the folders of the database in {}: its disk may be "
                                  "full, or not yours to write",
                                  folder()),
                      folderName());
    }
    syncFolder(".");
    dropCopy();
    for (const std::string& subfolder : allFolders()) {
        (void)recordsOf(subfolder);  // the listing puts back what was moved aside
    }
    readProtection();
    if (protection_.isUnfinished() && protection_.inForce == protection_.slots[0]) {
        // The change has not happened, and will not.
        const bool hadKdf = protection_.state == Protection::State::kScrypt;
        writeKdf(hadKdf ? std::vector{protection_.inForce} : std::vector<Slot>(), false);
        readProtection();
    }
}

void Session::enterLocked(Access access) {
    goToFolder();
    startHost();
    if (access == Access::kRead) {
        enterShared();
        return;
    }
    lock(os::LockKind::kExclusive);
    requireDatabase();
    recover();
}

// A reader changes nothing, unless a crash left something that reading would change.
// That may happen again while the lock is handed over.
void Session::enterShared() {
    constexpr int kAttempts = 100;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        lock(os::LockKind::kShared);
        requireDatabase();
        if (!needsRepair()) {
            readProtection();
            return;
        }
        lock(os::LockKind::kExclusive);
        requireDatabase();
        recover();
    }
    throw Failure(kIo,
                  fmt::format("what a crash left in {} cannot be repaired; `fstore check` tells "
                              "more",
                              folder()),
                  folderName());
}

SecretText Session::deriveForSlot() {
    switch (protection_.state) {
        case Protection::State::kNone:
            observer_.warn(
                fmt::format("the database in {} has no password: `fstore passwd` gives "
                            "it one",
                            folder()));
            return {};
        case Protection::State::kRaw:
            observer_.warn(
                fmt::format("the password of the database in {} can be guessed cheaply: "
                            "`fstore passwd` protects it",
                            folder()));
            break;
        case Protection::State::kScrypt:
            break;
    }
    return deriveP(protection_.inForce, observer_.password());
}

void writeKdf(const std::vector<Slot>& slots, bool keepOld) {
    Record record(kKdf);
    if (slots.empty()) {
        if (Record::isThere(kKdf)) {
            record.remove();
        }
        return;
    }
    for (const Slot& slot : slots) {
        record.addText(layout::kSlotId, printSlot(slot));
    }
    if (keepOld) {
        record.setNumber(layout::kKeepOldId, 1);
    }
    record.write();
}

}  // namespace fstore
