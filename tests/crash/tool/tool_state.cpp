#include "tests/crash/tool/tool_state.h"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string_view>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/key_file.h"
#include "lib/base/recovery_key.h"
#include "lib/database/database.h"
#include "lib/database/lost.h"
#include "lib/records/attributes.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "tests/crash/tool/tool_run.h"
#include "tests/support/recording_observer.h"

namespace crash {
namespace {

namespace fs = std::filesystem;

std::string textOf(std::span<const unsigned char> bytes) {
    return {bytes.begin(), bytes.end()};
}

// The time of an import is another one each time.
std::string printed(const fstore::Record& record) {
    std::ostringstream text;
    for (unsigned int i = 0; i < record.count(); ++i) {
        if (record.id(i) != fstore::attr::kImported) {
            text << record.type(i) << ' ' << record.id(i) << ' ' << record.isEncrypted(i) << ' '
                 << textOf(record.bytes(i)) << '\n';
        }
    }
    if (record.hasBody()) {
        text << "body " << record.isBodyEncrypted() << ' ' << textOf(record.body());
    }
    return text.str();
}

struct Secret {
    std::string name;
    fstore::UnlockSecret secret;
};

using Secrets = std::vector<Secret>;
using SecretKind = fstore::UnlockSecret::Kind;

constexpr const char* kKeyFile = "a key file";
constexpr const char* kSheet = "a sheet of a recovery key";
constexpr const char* kRaw = "P";

Secret passwordSecret(const char* password) {
    return {password, {.text = fstore::SecretText(password), .bytes = {}}};
}

// What a file holds that may open a database, if it does.
std::optional<fstore::UnlockSecret> secretIn(const std::string& text) {
    static const std::regex recovery("[0-9A-Z]{5}(-\\n?[0-9A-Z]{5}){7}");
    static const std::regex p("[0-9a-f]{64}\n?");
    if (std::regex_match(text, p)) {
        return fstore::UnlockSecret{
            .kind = SecretKind::kP, .text = fstore::SecretText(text.substr(0, 64)), .bytes = {}};
    }
    if (text.starts_with("fstore-key-1:")) {
        try {
            return fstore::UnlockSecret{.kind = SecretKind::kFile,
                                        .text = {},
                                        .bytes = fstore::parseKeyFile(text, "a key file")};
        } catch (const fstore::Failure&) {
            return std::nullopt;  // a draft that was cut
        }
    }
    std::smatch found;
    if (!std::regex_search(text, found, recovery)) {
        return std::nullopt;
    }
    std::string key = found.str();
    std::erase(key, '\n');
    auto bytes = fstore::parseRecoveryKey(key);
    if (!bytes) {
        return std::nullopt;
    }
    return fstore::UnlockSecret{
        .kind = SecretKind::kRecovery, .text = {}, .bytes = std::move(*bytes)};
}

// Those in the files beside a database; what is in its folders is no secret.
Secrets secretsIn(const Tree& tree) {
    Secrets all{passwordSecret(kNewPassword), passwordSecret(kPassword)};
    for (const auto& [path, node] : tree) {
        auto secret = node.folder || path.find('/') != std::string::npos ? std::nullopt
                                                                         : secretIn(node.bytes);
        if (secret) {
            all.push_back({path, std::move(*secret)});
        }
    }
    return all;
}

// Gives one secret, and none that it has learned.
class OneSecret final : public fstore::KeySource {
public:
    explicit OneSecret(const fstore::UnlockSecret& secret) : secret_(secret) {}

    std::optional<fstore::Unlocked> known(const fstore::Protection&) override {
        return std::nullopt;
    }
    fstore::Unlocked obtain(const fstore::Protection& protection) override {
        return fstore::askForP(protection, place_, observer_, [this] { return secret_; });
    }

private:
    const fstore::UnlockSecret& secret_;
    const fstore::Place place_;
    support::RecordingObserver observer_;
};

std::map<std::string, std::string> recordsHere() {
    std::map<std::string, std::string> records;
    for (const fstore::Address& address : fstore::allRecords()) {
        fstore::Record record = fstore::Record::read(address);
        if (record.hasSecrets()) {
            record.decrypt();
        }
        records[address.print()] = printed(record);
    }
    return records;
}

// What the secret finds; it is one opener more of what others have found.
void openWith(const Secret& secret, const std::string& folder, std::optional<Contents>& found) {
    OneSecret keys(secret.secret);
    support::RecordingObserver observer;
    fstore::Database database({folder, 0}, observer, &keys);
    const fstore::Hold hold = database.enter(fstore::Access::kRead, fstore::Need::kSecrets);
    if (!found) {
        found = Contents{"", recordsHere()};
    }
    if (database.protection().hasPassword()) {
        found->openers += (found->openers.empty() ? "" : ", ") + secret.name;
    }
}

// With each of the secrets; none opens a database that is not there, and one any other.
std::optional<Contents> openedIn(const std::string& folder, const Secrets& secrets,
                                 std::vector<std::string>& faults) {
    std::optional<Contents> found;
    std::size_t missing = 0;
    for (const Secret& secret : secrets) {
        const fs::path here = fs::current_path();
        try {
            openWith(secret, folder, found);
        } catch (const fstore::Failure& failure) {
            missing += failure.status() == kMissing ? 1 : 0;
            if (failure.status() != kMissing && failure.status() != kWrongPassword) {
                faults.emplace_back(failure.what());
            }
        }
        fs::current_path(here);
    }
    if (!found && missing != secrets.size()) {
        faults.emplace_back("no secret opens it");
    }
    return found;
}

// As the manual says: by its own name it is a database again.
Contents keptIn(const fs::path& path, const Secrets& secrets, std::vector<std::string>& faults) {
    const fs::path here = fs::current_path();
    const Scratch scratch;
    fs::copy(here / path, "db", fs::copy_options::recursive);
    std::optional<Contents> contents = openedIn(".", secrets, faults);
    if (!contents) {
        faults.push_back("there is no database in " + path.string());
    }
    fs::current_path(here);
    return contents.value_or(Contents());
}

// The contents of a file of the user's, as far as they are the same in each run.
std::string lastingIn(const std::string& bytes) {
    const auto secret = secretIn(bytes);
    if (!secret) {
        return bytes;
    }
    switch (secret->kind) {
        case SecretKind::kFile:
            return kKeyFile;
        case SecretKind::kRecovery:
            return kSheet;
        default:
            return kRaw;
    }
}

std::string withoutTime(const std::string& path) {
    static const std::regex time("[0-9]{8}T[0-9]{6}Z(-[0-9]+)?");
    return std::regex_replace(path, time, "TIME");
}

// The files below the folder of lost files in whose folder is no plan.
std::vector<std::string> unplannedIn(const Tree& tree, const std::string& lost) {
    std::vector<std::string> unplanned;
    for (const auto& [path, node] : tree) {
        if (node.folder || !path.starts_with(lost) || path.ends_with("/plan.new")) {
            continue;
        }
        const std::string plan = path.substr(0, path.find('/', lost.size())) + "/plan";
        const auto found = tree.find(plan);
        if (found == tree.end() || !fstore::parsePlan(found->second.bytes)) {
            unplanned.push_back(withoutTime(path.substr(path.find("db.lost"))));
        }
    }
    return unplanned;
}

bool isDraft(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return name.starts_with('.') && name.find(".new-") != std::string::npos;
}

// What is below `path`, in the tree's folders and by its first step there.
std::string firstStep(const std::string& path) {
    return path.substr(0, path.find('/'));
}

// Takes `wanted` out of the list; whether it was there.
template <class T>
bool take(std::vector<T>& list, const T& wanted) {
    const auto found = std::find(list.begin(), list.end(), wanted);
    if (found == list.end()) {
        return false;
    }
    list.erase(found);
    return true;
}

template <class Map>
std::optional<std::string> valueOf(const Map& map, const std::string& key) {
    const auto found = map.find(key);
    return found == map.end() ? std::nullopt : std::optional(found->second);
}

using Texts = std::map<std::string, std::string>;

// What of `seen` is neither there before nor afterwards goes, if more may be there.
Texts withoutMore(const Texts& seen, const Promise& promise, Repaired repaired) {
    Texts known = seen;
    if (repaired == Repaired::kPerhaps) {
        std::erase_if(known, [&](const auto& entry) {
            return !promise.before.lost.contains(entry.first) &&
                   !promise.after.lost.contains(entry.first);
        });
    }
    return known;
}

// Each of the names is in a state of before or of afterwards.
void judgeEach(const std::string& what, const Texts& seen, const Texts& before, const Texts& after,
               std::ostream& wrong) {
    Texts all = seen;
    all.insert(before.begin(), before.end());
    all.insert(after.begin(), after.end());
    for (const auto& [name, text] : all) {
        const std::optional<std::string> value = valueOf(seen, name);
        if (value != valueOf(before, name) && value != valueOf(after, name)) {
            wrong << "  " << what << ' ' << name << (value ? " is: " + *value : " is gone") << '\n';
        }
    }
}

void judgeDatabase(const ToolState& seen, const Promise& promise, std::ostream& wrong) {
    static const Contents empty;
    const bool mayBeMissing = !promise.before.database || !promise.after.database;
    if (!seen.database) {
        if (!mayBeMissing) {
            wrong << "  the database is gone\n";
        }
        return;
    }
    const Contents& before = promise.before.database ? *promise.before.database : empty;
    const Contents& after = promise.after.database ? *promise.after.database : empty;
    if (promise.makes && *seen.database == empty) {
        return;
    }
    if (promise.isWhole) {
        if (*seen.database != before && *seen.database != after) {
            wrong << "  the database is neither the old nor the new one\n";
        }
        return;
    }
    if (seen.database->openers != before.openers && seen.database->openers != after.openers) {
        wrong << "  it opens with \"" << seen.database->openers << "\"\n";
    }
    judgeEach("record", seen.database->records, before.records, after.records, wrong);
}

void judgeAcknowledged(const ToolState& seen, const Promise& promise, std::ostream& wrong) {
    const std::optional<Contents>& after = promise.after.database;
    if (seen.database != after) {
        wrong << (seen.database ? "  the database is not the acknowledged one\n"
                                : "  the database is gone\n");
        judgeEach("record", seen.database ? seen.database->records : Texts(), after->records,
                  after->records, wrong);
        if (seen.database && seen.database->openers != after->openers) {
            wrong << "  it opens with \"" << seen.database->openers << "\"\n";
        }
    }
}

// Only what was replaced stands aside, and only until the next command needs the place; what a
// change of password has left there goes before its slot.
void judgeAside(const ToolState& seen, const Promise& promise, Acknowledged acknowledged,
                std::ostream& wrong) {
    const bool isAfter = seen.aside == promise.after.aside;
    const bool isBefore = acknowledged == Acknowledged::kNo && seen.aside == promise.before.aside;
    const bool isReplaced = acknowledged == Acknowledged::kNo && promise.replaces &&
                            seen.aside == promise.before.database;
    if (!isAfter && !isBefore && !isReplaced) {
        wrong << "  ./old_db is not what it was\n";
    }
    const std::optional<Contents>& was = promise.before.aside;
    if (was && seen.aside != was &&
        std::find(seen.kept.begin(), seen.kept.end(), *was) == seen.kept.end()) {
        wrong << "  the database in ./old_db is gone\n";
    }
}

void judgeKept(const ToolState& seen, const Promise& promise, Repaired repaired,
               std::ostream& wrong) {
    std::vector<Contents> rest = seen.kept;
    for (const Contents& kept : promise.before.kept) {
        if (!take(rest, kept)) {
            wrong << "  a database that was kept is gone\n";
        }
    }
    for (const Contents& more : rest) {
        // What cannot be examined is kept rather than removed.
        const bool wasThere =
            more == promise.before.database || (promise.makes && more == Contents());
        const bool mayBe = repaired == Repaired::kPerhaps && wasThere;
        if (!mayBe && std::find(promise.after.kept.begin(), promise.after.kept.end(), more) ==
                          promise.after.kept.end()) {
            wrong << "  a database was kept that nobody wants\n";
        }
    }
}

}  // namespace

bool isLockFile(const std::string& path) {
    return path.substr(path.rfind('/') + 1) ==
           std::string_view(layout::kLockFile).substr(std::string_view("./").size());
}

ToolState look(const std::string& folder) {
    ToolState state;
    const Secrets secrets = secretsIn(readCurrentFolder());
    state.database = openedIn(folder, secrets, state.faults);
    const std::string head = folder == "." ? "" : folder + "/";
    const Tree tree = readCurrentFolder();
    state.unplanned = unplannedIn(tree, head + "db.lost/");
    for (const auto& [path, node] : tree) {
        const bool isInside = path.starts_with(head);
        const std::string rest = isInside ? path.substr(head.size()) : "";
        const std::string first = firstStep(rest);
        if (isInside && first.starts_with("db-")) {
            if (rest == first) {
                state.kept.push_back(keptIn(path, secrets, state.faults));
            }
        } else if (isInside && rest == "old_db") {
            state.aside = keptIn(path, secrets, state.faults);
        } else if (isInside && first == "db.lost") {
            if (!node.folder && !rest.ends_with("/plan") && !rest.ends_with("/plan.new")) {
                state.lost[withoutTime(rest)] = node.bytes;
            }
        } else if (!(isInside && (first == "db" || first == "new_db" || first == "old_db" ||
                                  first == "db.state")) &&
                   !node.folder && !isDraft(path) && !isLockFile(path)) {
            state.files[path] = lastingIn(node.bytes);
        }
    }
    std::sort(state.kept.begin(), state.kept.end());
    return state;
}

std::string passwordOf(const Contents& database) {
    const std::string first = database.openers.substr(0, database.openers.find(", "));
    const Tree tree = readCurrentFolder();
    const auto file = tree.find(first);
    return file == tree.end() ? first : file->second.bytes.substr(0, 64);
}

std::string judgeRecords(const ToolState& seen, const Promise& promise, Acknowledged acknowledged) {
    std::ostringstream wrong;
    for (const std::string& fault : seen.faults) {
        wrong << "  " << fault << '\n';
    }
    if (acknowledged == Acknowledged::kYes) {
        judgeAcknowledged(seen, promise, wrong);
    } else {
        judgeDatabase(seen, promise, wrong);
    }
    return wrong.str();
}

std::string judge(const ToolState& seen, const Promise& promise, Acknowledged acknowledged,
                  Repaired repaired) {
    std::ostringstream wrong;
    const Texts lost = withoutMore(seen.lost, promise, repaired);
    wrong << judgeRecords(seen, promise, acknowledged);
    for (const std::string& path : seen.unplanned) {
        // What a repair moves away can be put back, from the first file on to the last.
        if (!promise.purges || !promise.before.lost.contains(path)) {
            wrong << "  " << path << " was moved away without a plan\n";
        }
    }
    const ToolState& after = promise.after;
    if (acknowledged == Acknowledged::kYes) {
        Promise kept = promise;
        kept.before.kept = after.kept;
        judgeAside(seen, promise, acknowledged, wrong);
        judgeKept(seen, kept, repaired, wrong);
        judgeEach("lost file", lost, after.lost, after.lost, wrong);
        judgeEach("file", seen.files, after.files, after.files, wrong);
        return wrong.str();
    }
    judgeAside(seen, promise, acknowledged, wrong);
    judgeKept(seen, promise, repaired, wrong);
    judgeEach("lost file", lost, promise.before.lost, after.lost, wrong);
    judgeEach("file", seen.files, promise.before.files, after.files, wrong);
    return wrong.str();
}

std::string missingBytes(const Promise& promise, const Tree& tree) {
    std::string wrong;
    for (const std::string& bytes : promise.bytes) {
        const bool isThere = std::any_of(tree.begin(), tree.end(), [&](const auto& entry) {
            return !entry.second.folder && entry.second.bytes == bytes;
        });
        if (!isThere) {
            wrong += "  no file has the bytes any more: " + bytes + '\n';
        }
    }
    return wrong;
}

}  // namespace crash
