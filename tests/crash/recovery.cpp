#include "tests/crash/recovery.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "format/dsc_text.h"

namespace crash {
namespace {

std::string pathOf(const char* folder) {
    return *folder == '\0' ? "./db" : std::string("./db/") + folder;
}

std::string idOf(const char* folder, const aFileStore& record) {
    return *folder == '\0' ? record.getName() : std::string(folder) + '/' + record.getName();
}

class Recovery {
public:
    explicit Recovery(const Question& question) : question_(question) {}

    Observation run(Tree& left) {
        lookAtAll();
        left = readCurrentFolder();
        checkFiles(left);
        return seen_;
    }

private:
    void lookAtAll() {
        expect(kOk, CMN_FILESTORE_S.prepareDBFolders(), "prepareDBFolders");
        if (!tryPasswords()) {
            return;
        }
        if (question_.scanFirst) {
            scan();
            readByName();
        } else {
            readByName();
            scan();
        }
        readByName();  // the same again, now that everything is repaired
    }

    void fault(const std::string& what) {
        if (std::find(seen_.faults.begin(), seen_.faults.end(), what) == seen_.faults.end()) {
            seen_.faults.push_back(what);
        }
    }

    bool expect(Status wanted, Status status, const std::string& what) {
        if (status != wanted) {
            fault(what + ": status " + std::to_string(status));
        }
        return status == wanted;
    }

    // Leaves the database open when one of them is right.
    bool tryPasswords() {
        for (const std::string& password : question_.passwords) {
            const Status status = CMN_FILESTORE_S.open(password.c_str());
            if (status == kOk) {
                seen_.passwords.push_back(password);
                expect(kOk, CMN_FILESTORE_S.close(), "close");
            } else {
                expect(kWrongPassword, status, "open \"" + password + '"');
            }
        }
        return !seen_.passwords.empty() &&
               expect(kOk, CMN_FILESTORE_S.open(seen_.passwords.front().c_str()), "open again");
    }

    void note(const std::string& id, const Found& found) {
        const auto [known, isNew] = seen_.records.try_emplace(id, found);
        if (!isNew && known->second != found) {
            std::ostringstream text;
            text << id << " is found as " << known->second << " and then as " << found;
            fault(text.str());
        }
    }

    void readByName() {
        for (const std::string& id : question_.ids) {
            note(id, look(id));
        }
    }

    void scan() {
        for (const char* const folder : kFolders) {
            aFileStoreList list;
            const std::string path = pathOf(folder);
            expect(kOk, list.readFromFolder(path.c_str()), "scan " + path);
            std::set<std::string> listed;
            for (aFileStore record = list.getFirst(); record.target() != nullptr;
                 record = list.getNext()) {
                const std::string id = idOf(folder, record);
                if (!listed.insert(id).second) {
                    fault(id + " is listed twice");
                }
                if (id != kPasswordId) {
                    note(id, look(record));
                }
            }
            for (const auto& [id, found] : seen_.records) {
                if (folderOf(id) == path && found.exists && !listed.contains(id)) {
                    fault(id + " exists and is not listed");
                }
            }
        }
    }

    // Whatever is left over is known by its name, and hides nothing.
    void checkFiles(const Tree& tree) {
        for (const auto& [path, node] : tree) {
            const std::string name = path.substr(path.rfind('/') + 1);
            const std::string top = path.substr(0, path.find('/'));
            if (top == "new_db" || top == "old_db") {
                continue;
            }
            if (top != "db") {
                fault("unknown in the folder: " + path);
            } else if (name.ends_with(".dsc.$o$")) {
                if (!tree.contains(path.substr(0, path.size() - 4))) {
                    fault("saved and not put back: " + path);
                }
            } else if (!node.folder && !isKnown(name)) {
                fault("unknown kind of file: " + path);
            }
        }
    }

    static bool isKnown(const std::string& name) {
        return name.ends_with(".dsc") || name.ends_with(".dsc.$n$") || name.ends_with(".dsc.$d$") ||
               (name.size() == 8 &&
                name.find_first_not_of("0123456789abcdef") == std::string::npos);
    }

    const Question& question_;
    Observation seen_;
};

}  // namespace

Observation recover(const Question& question, Tree* left) {
    const Session session;
    Tree ignored;
    return Recovery(question).run(left != nullptr ? *left : ignored);
}

std::vector<std::string> goOn(const Observation& recovered, const Question& question) {
    std::vector<std::string> wrong;
    const auto check = [&](bool holds, const std::string& what) {
        if (!holds) {
            wrong.push_back(what);
        }
    };
    const Session session;
    check(CMN_FILESTORE_S.open(recovered.passwords.front().c_str()) == kOk, "does not open");
    const Contents fresh{{{kTypeBinary, 9, "fresh", true}}, "fresh body", true};
    for (const std::string& id : question.ids) {
        aFileStore record = recordOf(id);
        if (recovered.records.at(id).exists) {
            check(record.remove() == kOk, id + " cannot be removed");
            check(look(id) == kAbsent, id + " is found after its removal");
        }
        fill(record, fresh);
        check(record.write() == kOk, id + " cannot be written");
        check(look(id) == whole(fresh), id + " is not what was written last");
        check(record.write() == kOk, id + " cannot be written again");
        check(record.remove() == kOk, id + " cannot be removed again");
    }
    for (const char* const folder : kFolders) {
        aFileStoreList list;
        check(list.readFromFolder(pathOf(folder).c_str()) == kOk,
              pathOf(folder) + " is not listed");
        for (aFileStore record = list.getFirst(); record.target() != nullptr;
             record = list.getNext()) {
            const std::string id = idOf(folder, record);
            check(std::count(question.ids.begin(), question.ids.end(), id) == 0,
                  id + " has come back");
        }
    }
    return wrong;
}

}  // namespace crash
