#include "tests/crash/tool/tool_workloads.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "client/s_filestoreC.h"
#include "lib/database/database.h"
#include "lib/database/slot_copies.h"
#include "tests/crash/tree.h"
#include "tests/support/recording_observer.h"

namespace crash {
namespace {

namespace fs = std::filesystem;

using Args = std::vector<std::string>;

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
    if (!fs::exists(path) || fs::file_size(path) != bytes.size()) {
        throw std::runtime_error("cannot write " + path);
    }
}

void must(const Args& args) {
    const Ran ran = run({args});
    if (ran.code != 0) {
        throw std::runtime_error(describe(Command{args}) + ": " + ran.said);
    }
}

void put(const std::string& address, const std::string& bytes, const Args& options = {}) {
    writeFile("body", bytes);
    Args args{"put", "-f", address, "body"};
    args.insert(args.end(), options.begin(), options.end());
    must(args);
    fs::remove("body");
}

// A folder that a chain of commands fills once; each run starts from a copy.
template <class Fill>
void fromTemplate(Tree& made, Fill fill) {
    if (made.empty()) {
        fill();
        made = readCurrentFolder();
        return;
    }
    writeCurrentFolder(made);
}

void makeDatabase() {
    static Tree made;
    fromTemplate(made, [] {
        must({"init", "--cost", "14"});
        put("settings/a", "old", {"--label", "mine"});
        put("keys/k", "the key");
        put("lsps/plain", "plain", {"--plain-body"});
        writeFile("input", "new");
    });
}

void makeWithoutPassword() {
    {
        support::RecordingObserver observer;
        fstore::Database database({}, observer);
        const fstore::Hold hold = database.enter(fstore::Access::kChange, fstore::Need::kDatabase);
    }
    put("lsps/plain", "plain", {"--plain-body"});
}

constexpr const char* kOrphan = "an orphan's bytes";
constexpr const char* kHalf = "half of a descriptor";

// What deaths of writes and removals leave.
void leaveTraces() {
    fs::rename("db/settings/a.dsc", "db/settings/a.dsc.$o$");
    fs::copy("db/keys/k.dsc", "db/keys/k.dsc.$o$");
    writeFile("db/settings/deadbeef", kOrphan);
    writeFile("db/settings/b.dsc.$n$", kHalf);
    writeFile("db/keys/0000ab10", "a removed body");
    writeFile("db/keys/c.dsc.$d$", "10000003 00000000 0000ab10\n");
    fs::remove("db/crm");
}

void makeWithTraces() {
    makeDatabase();
    fs::copy("db", "new_db", fs::copy_options::recursive);
    leaveTraces();
}

void makeMovedAside() {
    makeWithTraces();
    fs::rename("db", "old_db");
}

constexpr const char* kRepairTime = "20260101T000000Z";

// With a repair whose files wait in ./db.lost, under a time that is known.
void makeRepaired() {
    makeDatabase();
    leaveTraces();
    must({"check", "--repair"});
    for (const auto& entry : fs::directory_iterator("db.lost")) {
        fs::rename(entry.path(), fs::path("db.lost") / kRepairTime);
        return;
    }
    throw std::runtime_error("the repair has moved nothing away");
}

void makeWithTwoRepairs() {
    makeRepaired();
    writeFile("db/settings/beefdead", "another orphan's bytes");
    must({"check", "--repair"});
}

void makeWithBackup() {
    static Tree made;
    fromTemplate(made, [] {
        makeDatabase();
        must({"backup", "backup.tar"});
        put("settings/a", "changed since");
        put("settings/more", "more");
    });
}

// A restore that was broken off after it had moved the database away.
void makeWithKeptAndCopy() {
    makeWithBackup();
    fs::copy("db", "db-20250101T000000Z", fs::copy_options::recursive);
    fs::copy("db", "new_db", fs::copy_options::recursive);
}

void makeBackupAlone() {
    makeWithBackup();
    fs::remove_all("db");
}

void makeWithOutput() {
    makeDatabase();
    writeFile("out", "what was there");
}

void makeWithForeignOld() {
    makeWithBackup();
    fs::copy("db", "old_db", fs::copy_options::recursive);
}

void makeWithImports() {
    makeDatabase();
    for (const char* const name : {"leaf_pem", "ed25519_key", "request_pem", "crl_pem"}) {
        fs::copy(fs::path(IMPORTS) / name, name);
    }
}

void makeWithImportedKey() {
    makeWithImports();
    must({"import", "ed25519_key"});
}

// Enters the database in the current folder to change what its commands do not.
template <class Change>
void inDatabase(const char* password, Change change) {
    support::RecordingObserver observer(password);
    fstore::Database database({}, observer);
    const fstore::Hold hold = database.enter(fstore::Access::kChange, fstore::Need::kSecrets);
    change(database);
}

// With a key file, a recovery key and P itself beside it.
void makeWithSlots() {
    static Tree made;
    fromTemplate(made, [] {
        makeDatabase();
        must({"key", "add", "--key-file", "file"});
        must({"key", "add", "--recovery", "--sheet", "sheet"});
        must({"key", "raw", "-o", "raw"});
    });
}

// As older programs do it: with a line, and without a second copy.
void changeToLine(fstore::Database& database, const char* password) {
    fstore::Slot line;
    line.ln = fstore::UnlockSlot::kLeastLn;
    const fstore::SecretText p = fstore::deriveP(line, fstore::SecretText(password));
    line.digest = fstore::digestOf(p);
    aFileStoreSrv service{nullptr};
    if (service.recrypt(database.p().c_str(), p.c_str()) != kOk) {
        throw std::runtime_error("cannot change the password as an older program");
    }
    const fstore::UnlockRecord record{
        .framed = false, .db = {}, .seq = 0, .sets = {{.line = line, .slots = {}}}};
    fstore::writeCopy("kdf", record, /*keepOld=*/false);
    fs::remove_all("old_db");
}

constexpr const char* kCopy = "db/kdf-copy.dsc";

// From before there were slots.
void makeWithLine() {
    static Tree made;
    fromTemplate(made, [] {
        makeDatabase();
        inDatabase(kPassword, [](auto& database) { changeToLine(database, kPassword); });
        fs::remove(kCopy);  // which such a program does not know
    });
}

// The same, after this program had copied the line and an older one changed the password.
void makeChangedByOlder() {
    static Tree made;
    fromTemplate(made, [] {
        makeWithLine();
        inDatabase(kPassword, [](auto& /*database*/) {});  // copies the line
        inDatabase(kPassword, [](auto& database) { changeToLine(database, kNewPassword); });
    });
}

void makeWithoutKey() {
    makeWithSlots();
    fs::remove("db/key.dsc");
}

// A backup that was made while a change of the password was under way.
void makeWithUnfinishedBackup() {
    static Tree made;
    fromTemplate(made, [] {
        makeDatabase();
        const Tree before = readCurrentFolder();
        inDatabase(kPassword, [](auto& database) {
            const fstore::Protection& now = database.protection();
            fstore::writeSlots(
                now, now.record.db,
                {now.inForce, fstore::makeKey(fstore::SecretText(kNewPassword),
                                              fstore::UnlockSlot::kLeastLn, now.record.db)
                                  .set},
                /*keepOld=*/true);
        });
        must({"backup", "backup.tar"});
        clearBelow("db");
        changeCurrentFolder(readCurrentFolder(), [&] {
            Tree all = before;
            all["backup.tar"] = readCurrentFolder().at("backup.tar");
            return all;
        }());
        put("settings/more", "more");
    });
}

std::vector<ToolWorkload> slotWorkloads() {
    const std::string old = kPassword;
    const std::string fresh = kNewPassword;
    return {{.name = "key_add_password",
             .command = {{"key", "add", "--cost", "14", "--label", "second"}},
             .start = makeDatabase,
             .result = {.keepsRecords = true, .openers = fresh + ", " + old}},
            {.name = "key_add_file",
             .command = {{"key", "add", "--key-file", "file"}},
             .start = makeDatabase,
             .result = {.keepsRecords = true, .openers = old + ", file"}},
            {.name = "key_add_recovery",
             .command = {{"key", "add", "--recovery", "--sheet", "sheet"}},
             .start = makeDatabase,
             .result = {.keepsRecords = true, .openers = old + ", sheet"}},
            {.name = "key_rm",
             .command = {{"key", "rm", "2"}},
             .start = makeWithSlots,
             .result = {.keepsRecords = true, .openers = old + ", raw, sheet"}},
            {.name = "key_reset",
             .command = {{"key", "reset", "--raw-key-file", "raw", "--cost", "14"}},
             .start = makeWithSlots,
             .result = {.keepsRecords = true, .openers = fresh + ", raw"}},
            {.name = "passwd_rewrap",
             .command = {{"passwd", "--rewrap", "--cost", "14"}},
             .start = makeWithSlots,
             .result = {.keepsRecords = true, .openers = fresh + ", file, raw, sheet"}},
            {.name = "passwd_rotate",
             .command = {{"passwd", "--rotate", "--cost", "14", "--with-key-file", "file",
                          "--recovery", "--sheet", "sheet2"}},
             .start = makeWithSlots,
             .result = {.keepsRecords = true, .openers = fresh + ", file, sheet2"}},
            {.name = "passwd_rotate_drop_others",
             .command = {{"passwd", "--rotate", "--cost", "14", "--drop-others"}},
             .start = makeWithSlots,
             .result = {.keepsRecords = true, .openers = fresh}},
            {.name = "passwd_from_a_line",
             .command = {{"passwd", "--cost", "14"}},
             .start = makeWithLine,
             .result = {.keepsRecords = true, .openers = fresh}},
            {.name = "put_into_a_line",
             .command = {{"put", "settings/n", "input"}},
             .start = makeWithLine,
             .result = {.records = 4}},
            {.name = "put_after_an_older_change",
             .command = {{"put", "settings/n", "input"}, kNewPassword},
             .start = makeChangedByOlder,
             .result = {.records = 4, .openers = fresh}},
            {.name = "put_without_key",
             .command = {{"put", "settings/n", "input"}},
             .start = makeWithoutKey,
             .result = {.records = 4, .openers = old + ", file, raw, sheet"}},
            {.name = "restore_of_an_unfinished_change",
             .command = {{"restore", "backup.tar", "--replace"}},
             .start = makeWithUnfinishedBackup,
             .isWhole = true,
             .result = {.kept = 1}}};
}

std::vector<ToolWorkload> recordWorkloads() {
    const auto nothing = [] {};
    return {{.name = "init",
             .command = {{"init", "--cost", "14"}},
             .start = nothing,
             .isWhole = true,
             .makes = true,
             .result = {.records = 0}},
            {.name = "init_in_a_new_folder",
             .command = {{"-D", "sub", "init", "--cost", "14"}},
             .start = nothing,
             .folder = "sub",
             .isWhole = true,
             .makes = true,
             .result = {.records = 0}},
            {.name = "put_new",
             .command = {{"put", "settings/n", "input"}},
             .start = makeDatabase,
             .result = {.records = 4},
             .goesOnByName = true},
            {.name = "put_new_plain",
             .command = {{"put", "settings/n", "input", "--plain-body"}},
             .start = makeDatabase,
             .result = {.records = 4},
             .goesOnByName = true},
            {.name = "put_over",
             .command = {{"put", "-f", "settings/a", "input"}},
             .start = makeDatabase,
             .result = {.records = 3},
             .goesOnByName = true},
            {.name = "set",
             .command = {{"set", "keys/k", "label=x"}},
             .start = makeDatabase,
             .result = {.records = 3},
             .goesOnByName = true},
            {.name = "set_encrypted",
             .command = {{"set", "keys/k", "0x8001=y", "--encrypt"}},
             .start = makeDatabase,
             .result = {.records = 3},
             .goesOnByName = true},
            {.name = "rm",
             .command = {{"rm", "settings/a"}},
             .start = makeDatabase,
             .result = {.records = 2},
             .goesOnByName = true},
            {.name = "rm_two",
             .command = {{"rm", "settings/a", "lsps/plain"}},
             .start = makeDatabase,
             .result = {.records = 1},
             .goesOnByName = true},
            {.name = "mv",
             .command = {{"mv", "settings/a", "lsps/b"}},
             .start = makeDatabase,
             .result = {.records = 3},
             .goesOnByName = true},
            {.name = "import",
             .command = {{"import", "leaf_pem", "ed25519_key", "request_pem", "crl_pem"}},
             .start = makeWithImports,
             .result = {.records = 7}},
            {.name = "passwd",
             .command = {{"passwd", "--cost", "14"}},
             .start = makeDatabase,
             .result = {.keepsRecords = true, .openers = kNewPassword}},
            {.name = "passwd_keep_old",
             .command = {{"passwd", "--cost", "14", "--keep-old"}},
             .start = makeDatabase,
             .result = {.keepsRecords = true, .openers = kNewPassword, .kept = 1}},
            {.name = "passwd_with_foreign_old",
             .command = {{"passwd", "--cost", "14"}},
             .start = makeWithForeignOld,
             .result = {.records = 4, .keepsRecords = true, .openers = kNewPassword, .kept = 1}},
            {.name = "passwd_without_password",
             .command = {{"passwd", "--cost", "14"}},
             .start = makeWithoutPassword,
             .result = {.records = 1, .keepsRecords = true, .openers = kNewPassword}},
            {.name = "passwd_with_kept_and_copy",
             .command = {{"passwd", "--cost", "14"}},
             .start = makeWithKeptAndCopy,
             .result = {.records = 4, .keepsRecords = true, .openers = kNewPassword, .kept = 1}},
            {.name = "restore",
             .command = {{"restore", "backup.tar"}},
             .start = makeBackupAlone,
             .isWhole = true,
             .result = {.records = 3}},
            {.name = "restore_in_a_new_folder",
             .command = {{"-D", "sub", "restore", "backup.tar"}},
             .start = makeBackupAlone,
             .folder = "sub",
             .isWhole = true,
             .result = {.records = 3}},
            {.name = "restore_replace",
             .command = {{"restore", "backup.tar", "--replace"}},
             .start = makeWithBackup,
             .isWhole = true,
             .result = {.kept = 1}},
            {.name = "restore_replace_with_kept_and_copy",
             .command = {{"restore", "backup.tar", "--replace"}},
             .start = makeWithKeptAndCopy,
             .isWhole = true,
             .result = {.kept = 2}},
            {.name = "restore_replace_with_foreign_old",
             .command = {{"restore", "backup.tar", "--replace"}},
             .start = makeWithForeignOld,
             .isWhole = true,
             .result = {.kept = 2}},
            {.name = "check_repair",
             .command = {{"check", "--repair"}},
             .start = makeWithTraces,
             .bytes = {kOrphan, kHalf},
             .result = {.keepsRecords = true, .lost = 2}},
            {.name = "check_repair_moved_aside",
             .command = {{"check", "--repair"}},
             .start = makeMovedAside,
             .bytes = {kOrphan, kHalf},
             .result = {.keepsRecords = true, .lost = 2}},
            {.name = "check_undo",
             .command = {{"check", "--undo", kRepairTime}},
             .start = makeWithTwoRepairs,
             .bytes = {kOrphan, kHalf},
             .result = {.keepsRecords = true, .lost = 1}},
            {.name = "check_purge",
             .command = {{"check", "--purge", kRepairTime}},
             .start = makeWithTwoRepairs,
             .purges = true,
             .result = {.keepsRecords = true, .lost = 1}},
            {.name = "backup",
             .command = {{"backup", "out"}},
             .start = makeDatabase,
             .result = {.keepsRecords = true}},
            {.name = "backup_over",
             .command = {{"backup", "out", "--force"}},
             .start = makeWithOutput,
             .result = {.keepsRecords = true}},
            {.name = "get",
             .command = {{"get", "settings/a", "-o", "out"}},
             .start = makeDatabase,
             .result = {.keepsRecords = true}},
            {.name = "get_over",
             .command = {{"get", "settings/a", "-o", "out", "--force"}},
             .start = makeWithOutput,
             .result = {.keepsRecords = true}},
            {.name = "get_moved_aside",
             .command = {{"get", "settings/a", "-o", "out"}},
             .start = makeMovedAside,
             .result = {.keepsRecords = true},
             .goesOnByName = true},
            {.name = "export",
             .command = {{"export", "keys/key-53b5a681", "--plain", "-o", "out"}},
             .start = makeWithImportedKey,
             .result = {.records = 4, .keepsRecords = true}}};
}

}  // namespace

const std::vector<ToolWorkload>& toolWorkloads() {
    static const std::vector<ToolWorkload> all = [] {
        std::vector<ToolWorkload> both = recordWorkloads();
        std::ranges::move(slotWorkloads(), std::back_inserter(both));
        return both;
    }();
    return all;
}

const std::vector<std::vector<Command>>& namedRounds() {
    static const std::vector<std::vector<Command>> all{
        {{{"set", "settings/a", "0x9000=x"}}, {{"unset", "settings/a", "0x9000"}}},
        {{{"set", "a", "0x9000=x"}}, {{"unset", "a", "0x9000"}}},
        {{{"set", "keys/k", "0x9000=x", "--encrypt"}}, {{"unset", "keys/k", "0x9000"}}},
        {{{"set", "lsps/plain", "0x9000=x"}}, {{"unset", "lsps/plain", "0x9000"}}},
        {{{"mv", "keys/k", "settings/k"}}, {{"mv", "settings/k", "keys/k"}}},
        {{{"put", "settings/other", "input"}}, {{"rm", "settings/other"}}}};
    return all;
}

}  // namespace crash
