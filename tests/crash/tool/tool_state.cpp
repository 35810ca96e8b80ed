#include "tests/crash/tool/tool_state.h"

#include <algorithm>
#include <filesystem>
#include <regex>
#include <sstream>

#include "lib/base/error.h"
#include "lib/database/database.h"
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

Contents contentsOf(fstore::Database& database, const std::string& password) {
    Contents contents{database.protection().hasPassword() ? password : "", {}};
    for (const fstore::Address& address : fstore::allRecords()) {
        fstore::Record record = fstore::Record::read(address);
        if (record.hasSecrets()) {
            record.decrypt();
        }
        contents.records[address.print()] = printed(record);
    }
    return contents;
}

// With each of the passwords; none opens a database that is not there, and one any other.
std::optional<Contents> openedIn(const std::string& folder, std::vector<std::string>& faults) {
    std::optional<Contents> found;
    int missing = 0;
    for (const char* const password : {kNewPassword, kPassword}) {
        const fs::path here = fs::current_path();
        try {
            support::RecordingObserver observer(password);
            fstore::Database database({folder, 0}, observer);
            const fstore::Hold hold = database.enter(fstore::Access::kRead, fstore::Need::kSecrets);
            Contents contents = contentsOf(database, password);
            if (found && (!contents.password.empty() || *found != contents)) {
                faults.emplace_back("two passwords open it");
            }
            found = std::move(contents);
        } catch (const fstore::Failure& failure) {
            missing += failure.status() == kMissing ? 1 : 0;
            if (failure.status() != kMissing && failure.status() != kWrongPassword) {
                faults.emplace_back(failure.what());
            }
        }
        fs::current_path(here);
    }
    if (!found && missing != 2) {
        faults.emplace_back("no password opens it");
    }
    return found;
}

// As the manual says: by its own name it is a database again.
Contents keptIn(const fs::path& path, std::vector<std::string>& faults) {
    const fs::path here = fs::current_path();
    const Scratch scratch;
    fs::copy(here / path, "db", fs::copy_options::recursive);
    std::optional<Contents> contents = openedIn(".", faults);
    if (!contents) {
        faults.push_back("there is no database in " + path.string());
    }
    fs::current_path(here);
    return contents.value_or(Contents());
}

std::string withoutTime(const std::string& path) {
    static const std::regex time("[0-9]{8}T[0-9]{6}Z(-[0-9]+)?");
    return std::regex_replace(path, time, "TIME");
}

bool isDraft(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return name.starts_with(".fstore-") ||
           (name.starts_with('.') && name.find(".new-") != std::string::npos);
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
    if (seen.database->password != before.password && seen.database->password != after.password) {
        wrong << "  it opens with \"" << seen.database->password << "\"\n";
    }
    judgeEach("record", seen.database->records, before.records, after.records, wrong);
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

ToolState look(const std::string& folder) {
    ToolState state;
    state.database = openedIn(folder, state.faults);
    const std::string head = folder == "." ? "" : folder + "/";
    for (const auto& [path, node] : readCurrentFolder()) {
        const bool isInside = path.starts_with(head);
        const std::string rest = isInside ? path.substr(head.size()) : "";
        const std::string first = firstStep(rest);
        if (isInside && first.starts_with("db-")) {
            if (rest == first) {
                state.kept.push_back(keptIn(path, state.faults));
            }
        } else if (isInside && first == "db.lost") {
            if (!node.folder && !rest.ends_with("/plan") && !rest.ends_with("/plan.new")) {
                state.lost[withoutTime(rest)] = node.bytes;
            }
        } else if (!(isInside && (first == "db" || first == "new_db" || first == "old_db")) &&
                   !node.folder && !isDraft(path)) {
            state.files[path] = node.bytes;
        }
    }
    std::sort(state.kept.begin(), state.kept.end());
    return state;
}

std::string judge(const ToolState& seen, const Promise& promise, Acknowledged acknowledged,
                  Repaired repaired) {
    std::ostringstream wrong;
    const Texts lost = withoutMore(seen.lost, promise, repaired);
    for (const std::string& fault : seen.faults) {
        wrong << "  " << fault << '\n';
    }
    const ToolState& after = promise.after;
    if (acknowledged == Acknowledged::kYes) {
        if (seen.database != after.database) {
            wrong << "  the database is not the acknowledged one\n";
            judgeEach("record", seen.database ? seen.database->records : Texts(),
                      after.database->records, after.database->records, wrong);
        }
        Promise kept = promise;
        kept.before.kept = after.kept;
        judgeKept(seen, kept, repaired, wrong);
        judgeEach("lost file", lost, after.lost, after.lost, wrong);
        judgeEach("file", seen.files, after.files, after.files, wrong);
        return wrong.str();
    }
    judgeDatabase(seen, promise, wrong);
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
