#include "tests/crash/tool/tool_workloads.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "lib/database/database.h"
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
    Args args{"put", address, "body"};
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
        put("settings/a", "old");
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

std::vector<ToolWorkload> make() {
    const auto nothing = [] {};
    std::vector<ToolWorkload> all{
        {"init", {{"init", "--cost", "14"}}, nothing, ".", true, true},
        {"init_in_a_new_folder",
         {{"-D", "sub", "init", "--cost", "14"}},
         nothing,
         "sub",
         true,
         true},
        {"put_new", {{"put", "settings/n", "input"}}, makeDatabase},
        {"put_new_plain", {{"put", "settings/n", "input", "--plain-body"}}, makeDatabase},
        {"put_over", {{"put", "settings/a", "input"}}, makeDatabase},
        {"set", {{"set", "keys/k", "label=x"}}, makeDatabase},
        {"set_encrypted", {{"set", "keys/k", "0x8001=y", "--encrypt"}}, makeDatabase},
        {"rm", {{"rm", "settings/a"}}, makeDatabase},
        {"rm_two", {{"rm", "settings/a", "lsps/plain"}}, makeDatabase},
        {"import",
         {{"import", "leaf_pem", "ed25519_key", "request_pem", "crl_pem"}},
         makeWithImports},
        {"passwd", {{"passwd", "--cost", "14"}}, makeDatabase},
        {"passwd_keep_old", {{"passwd", "--cost", "14", "--keep-old"}}, makeDatabase},
        {"passwd_with_foreign_old", {{"passwd", "--cost", "14"}}, makeWithForeignOld},
        {"passwd_without_password", {{"passwd", "--cost", "14"}}, makeWithoutPassword},
        {"passwd_with_kept_and_copy", {{"passwd", "--cost", "14"}}, makeWithKeptAndCopy},
        {"restore", {{"restore", "backup.tar"}}, makeBackupAlone, ".", true},
        {"restore_in_a_new_folder",
         {{"-D", "sub", "restore", "backup.tar"}},
         makeBackupAlone,
         "sub",
         true},
        {"restore_replace", {{"restore", "backup.tar", "--replace"}}, makeWithBackup, ".", true},
        {"restore_replace_with_kept_and_copy",
         {{"restore", "backup.tar", "--replace"}},
         makeWithKeptAndCopy,
         ".",
         true},
        {"restore_replace_with_foreign_old",
         {{"restore", "backup.tar", "--replace"}},
         makeWithForeignOld,
         ".",
         true},
        {"check_repair",
         {{"check", "--repair"}},
         makeWithTraces,
         ".",
         false,
         false,
         {kOrphan, kHalf}},
        {"check_repair_moved_aside",
         {{"check", "--repair"}},
         makeMovedAside,
         ".",
         false,
         false,
         {kOrphan, kHalf}},
        {"check_undo",
         {{"check", "--undo", kRepairTime}},
         makeWithTwoRepairs,
         ".",
         false,
         false,
         {kOrphan, kHalf}},
        {"check_purge", {{"check", "--purge", kRepairTime}}, makeWithTwoRepairs},
        {"backup", {{"backup", "out"}}, makeDatabase},
        {"backup_over", {{"backup", "out", "--force"}}, makeWithOutput},
        {"get", {{"get", "settings/a", "-o", "out"}}, makeDatabase},
        {"get_over", {{"get", "settings/a", "-o", "out", "--force"}}, makeWithOutput},
        {"get_moved_aside", {{"get", "settings/a", "-o", "out"}}, makeMovedAside},
        {"export",
         {{"export", "keys/key-53b5a681", "--plain", "-o", "out"}},
         [] {
             makeWithImports();
             must({"import", "ed25519_key"});
         }},
    };
    return all;
}

}  // namespace

const std::vector<ToolWorkload>& toolWorkloads() {
    static const std::vector<ToolWorkload> all = make();
    return all;
}

}  // namespace crash
