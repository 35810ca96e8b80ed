#include "lib/database/lost.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <string_view>

#include <fmt/format.h>

#include "format/layout.h"
#include "format/record_name.h"
#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/time.h"
#include "lib/records/descriptor.h"
#include "os/files.h"
#include "os/fs.h"

namespace fstore {
namespace {

using layout::kLive;

constexpr std::string_view kPlanName = "plan";
constexpr std::string_view kFirstLine = "fstore-lost 1";
constexpr std::string_view kLastLine = "end";
constexpr std::string_view kNoKey = "-";
constexpr std::uint64_t kMostPlan = 256 << 20;

// Words of a line: what is not a visible character of ASCII becomes "\" and two digits.
std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c > ' ' && c <= '~' && c != '\\') {
            out += c;
        } else {
            const unsigned char byte[] = {static_cast<unsigned char>(c)};
            out += "\\" + toHex(byte);
        }
    }
    return out;
}

std::optional<std::string> unescaped(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        if (text[0] != '\\') {
            out += text[0];
            text.remove_prefix(1);
            continue;
        }
        const auto byte = text.size() < 3 ? std::nullopt : fromHex(text.substr(1, 2));
        if (!byte || byte->size() != 1) {
            return std::nullopt;
        }
        out += static_cast<char>((*byte)[0]);
        text.remove_prefix(3);
    }
    return out;
}

// "a/b" that stays below the folder that it is taken from.
bool staysInside(std::string_view path) {
    while (true) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view step = path.substr(0, end);
        if (step.empty() || step == "." || step == ".." ||
            step.find('\0') != std::string_view::npos) {
            return false;
        }
        if (end == path.size()) {
            return true;
        }
        path.remove_prefix(end + 1);
    }
}

std::string_view parentOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string below(const std::string& folder, std::string_view path) {
    return path.empty() ? folder : joined(folder, std::string(path));
}

// Each step of the path below `top` is a folder by then, and none of them a link.
void makeFolders(const std::string& top, std::string_view path) {
    for (std::size_t end = 0; end < path.size();) {
        end = std::min(path.find('/', end + 1), path.size());
        const std::string folder = below(top, path.substr(0, end));
        if (isA(os::EntryType::kFolder, folder)) {
            continue;
        }
        if (os::mkdir(folder.c_str(), S_IRWXU) != 0) {
            failWithErrno("create the folder", folder);
        }
        syncFolder(std::string(parentOf(folder)));
    }
}

void makeTop() {
    if (!isA(os::EntryType::kFolder, layout::kLost)) {
        if (os::mkdir(layout::kLost, S_IRWXU) != 0) {
            failWithErrno("create the folder", layout::kLost);
        }
        syncFolder(".");
    }
}

// Makes the folder for what goes at this time, under a name that is free.
std::string makeFolderFor(std::int64_t time) {
    makeTop();
    const std::string wanted = compactTime(time);
    std::string name = wanted;
    for (int i = 2; os::mkdir(joined(layout::kLost, name).c_str(), S_IRWXU) != 0; ++i) {
        if (errno != EEXIST) {
            failWithErrno("create the folder", joined(layout::kLost, name));
        }
        name = fmt::format("{}-{}", wanted, i);
    }
    syncFolder(layout::kLost);
    return name;
}

void renameFile(const std::string& from, const std::string& to) {
    requireLock();
    if (os::rename(from.c_str(), to.c_str()) != 0) {
        failWithErrno(fmt::format("move {} to", from), to);
    }
}

// A plan is there whole or not at all: no file has moved before it has its name.
void writePlan(const std::string& folder, const LostPlan& plan) {
    const std::string path = joined(folder, std::string(kPlanName));
    const std::string beside = path + ".new";
    const std::string text = printPlan(plan);
    os::File file = os::openFile(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR);
    if (!file || !os::writeAll(file.get(), text.data(), text.size()) ||
        !os::closeDurably(std::move(file))) {
        failWithErrno("write", path);
    }
    renameFile(beside, path);
    syncFolder(folder);
}

// A repair that was broken off before its plan was there has moved nothing.
bool isEmptyHanded(const std::string& folder) {
    const std::vector<FolderEntry> entries = listFolder(folder);
    return std::ranges::all_of(entries, [](const FolderEntry& entry) {
        return entry.name == fmt::format("{}.new", kPlanName);
    });
}

// What came must be durable before what went is gone.
void syncFolders(const std::set<std::string, std::less<>>& folders, const std::string& to,
                 const std::string& from) {
    for (const std::string& folder : folders) {
        syncFolder(below(to, folder));
    }
    for (const std::string& folder : folders) {
        syncFolder(below(from, folder));
    }
}

// Whether the descriptor names a body that waits beside it while another has its name by now: put
// back alone, it would name the other.
bool isBodyTaken(const std::string& folder, const std::string& descriptor) {
    const std::string name = descriptor.substr(descriptor.rfind('/') + 1);  // npos + 1 is 0
    if (markerOf(stateBeside(name).value_or(name)).empty()) {
        return false;
    }
    try {
        const auto body = bodyNameOf(readDescriptor(below(folder, descriptor)));
        const std::string_view place = parentOf(descriptor);
        return body && isBodyName(*body) && exists(joined(below(folder, place), *body)) &&
               exists(joined(below(kLive, place), *body));
    } catch (const Failure&) {
        return false;  // what cannot be read names none
    }
}

std::optional<LostPlan> readPlan(const std::string& folder) {
    const std::string path = joined(folder, std::string(kPlanName));
    if (!isA(os::EntryType::kFile, path)) {
        return std::nullopt;
    }
    const SecretBytes bytes = InputFile(path).readAll(kMostPlan);
    return parsePlan({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

std::string requireLostFolder(const std::string& name) {
    std::string folder = joined(layout::kLost, name);
    if (name.find('/') != std::string::npos || name.starts_with('.') || name.empty() ||
        !isA(os::EntryType::kFolder, layout::kLost) || !isA(os::EntryType::kFolder, folder)) {
        throw Failure(
            kMissing,
            fmt::format("there is no {}; `fstore check` lists what repairs moved away", folder),
            folder);
    }
    return folder;
}

// Removes the folder with the plan in it, when no file is left beside that.
void removeIfDone(const std::string& folder, const LostPlan& plan) {
    std::set<std::string, std::greater<>> inside;  // the deepest first
    for (const LostFile& file : plan.files) {
        if (exists(below(folder, file.path))) {
            return;
        }
        for (std::string_view path = parentOf(file.path); !path.empty(); path = parentOf(path)) {
            inside.insert(std::string(path));
        }
    }
    for (const std::string& path : inside) {
        requireLock();
        (void)os::rmdir(below(folder, path).c_str());  // one that is not empty stays
    }
    requireLock();
    if (os::remove(joined(folder, std::string(kPlanName)).c_str()) != 0) {
        failWithErrno("remove", joined(folder, std::string(kPlanName)));
    }
    requireLock();
    (void)os::rmdir(folder.c_str());
    syncFolder(layout::kLost);
    requireLock();
    if (os::rmdir(layout::kLost) == 0) {
        syncFolder(".");
    }
}

// A line's head and rest, cut at its first blank.
std::pair<std::string_view, std::string_view> cut(std::string_view line) {
    const std::size_t blank = std::min(line.find(' '), line.size());
    return {line.substr(0, blank), line.substr(std::min(blank + 1, line.size()))};
}

bool parseKey(std::string_view text, std::optional<Digest>& key) {
    if (text == kNoKey) {
        key.reset();
        return true;
    }
    const auto bytes = fromHex(text);
    if (!bytes || bytes->size() != Digest().size()) {
        return false;
    }
    key.emplace();
    std::copy(bytes->begin(), bytes->end(), key->begin());
    return true;
}

bool parseFile(std::string_view text, LostPlan& plan) {
    const auto [kind, rest] = cut(text);
    const auto [path, reason] = cut(rest);
    auto plainPath = unescaped(path);
    auto plainReason = unescaped(reason);
    if (kind.empty() || !plainPath || !plainReason || !staysInside(*plainPath)) {
        return false;
    }
    plan.files.push_back({std::move(*plainPath), std::string(kind), std::move(*plainReason)});
    return true;
}

bool parseLine(std::string_view line, LostPlan& plan) {
    const auto [head, rest] = cut(line);
    if (head == "time") {
        const auto time = parseTime(rest);
        plan.time = time.value_or(0);
        return time.has_value();
    }
    if (head == "key") {
        return parseKey(rest, plan.key);
    }
    return head == "file" && parseFile(rest, plan);
}

std::string counted(std::size_t files) {
    return files == 1 ? "a file" : fmt::format("{} files", files);
}

}  // namespace

std::string moveToLost(const LostPlan& plan) {
    std::string name = makeFolderFor(plan.time);
    const std::string folder = joined(layout::kLost, name);
    writePlan(folder, plan);
    std::set<std::string, std::less<>> changed;
    for (const LostFile& file : plan.files) {
        makeFolders(folder, parentOf(file.path));
        renameFile(below(kLive, file.path), below(folder, file.path));
        changed.insert(std::string(parentOf(file.path)));
    }
    syncFolders(changed, folder, kLive);
    return name;
}

std::string describe(const LostFolder& lost) {
    const std::string path = joined(layout::kLost, lost.name);
    return lost.plan
               ? fmt::format(
                     "{} holds {} that a repair moved away, encrypted with the "
                     "key of that time; `fstore check --undo {}` puts them back, "
                     "--purge removes them",
                     path, counted(lost.plan->files.size()), lost.name)
               : fmt::format("{} holds files that a repair moved away, without a readable plan",
                             path);
}

std::vector<LostFolder> lostFolders() {
    std::vector<LostFolder> found;
    if (!isA(os::EntryType::kFolder, layout::kLost)) {
        return found;
    }
    for (const FolderEntry& entry : listFolder(layout::kLost)) {
        const bool isOne = entry.type == FolderEntry::Type::kFolder;
        if (isOne && !isEmptyHanded(joined(layout::kLost, entry.name))) {
            found.push_back({entry.name, readPlan(joined(layout::kLost, entry.name))});
        }
    }
    return found;
}

UndoReport undoLost(const std::string& name, const std::optional<Digest>& key) {
    const std::string folder = requireLostFolder(name);
    const std::optional<LostPlan> plan = readPlan(folder);
    if (!plan) {
        throw Failure(kMalformed,
                      fmt::format("the plan in {} cannot be read; the files beside it have the "
                                  "paths that they had below ./db, and can be moved by hand",
                                  folder),
                      joined(folder, std::string(kPlanName)));
    }
    if (plan->key != key) {
        throw Failure(kNoDigest,
                      fmt::format("the password has changed since {} was moved away, and what is "
                                  "encrypted there has the old key; nothing was put back",
                                  folder),
                      folder);
    }
    UndoReport report;
    std::set<std::string, std::less<>> changed;
    for (const LostFile& file : plan->files) {
        const std::string from = below(folder, file.path);
        const std::string to = below(kLive, file.path);
        if (!exists(from)) {
            continue;  // an undoing before this one was broken off, or the moving was
        }
        if (exists(to) || isBodyTaken(folder, file.path)) {
            report.taken.push_back(file.path);
            continue;
        }
        makeFolders(kLive, parentOf(file.path));
        renameFile(from, to);
        changed.insert(std::string(parentOf(file.path)));
        report.putBack.push_back(file.path);
    }
    syncFolders(changed, kLive, folder);
    removeIfDone(folder, *plan);
    return report;
}

void purgeLost(const std::string& name) {
    const std::string folder = requireLostFolder(name);
    removeTree(folder);
    syncFolder(layout::kLost);
    requireLock();
    if (os::rmdir(layout::kLost) == 0) {
        syncFolder(".");
    }
}

std::string printPlan(const LostPlan& plan) {
    std::string text = fmt::format("{}\ntime {}\nkey {}\n", kFirstLine, printTime(plan.time),
                                   plan.key ? toHex(*plan.key) : std::string(kNoKey));
    for (const LostFile& file : plan.files) {
        text += fmt::format("file {} {} {}\n", file.kind, escaped(file.path), escaped(file.reason));
    }
    return text.append(kLastLine).append("\n");
}

std::optional<LostPlan> parsePlan(const std::string& text) {
    std::string_view rest = text;
    LostPlan plan;
    for (bool isFirst = true; !rest.empty(); isFirst = false) {
        const std::size_t end = rest.find('\n');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end + 1);
        if (line == kLastLine && !isFirst) {
            return rest.empty() ? std::optional(plan) : std::nullopt;
        }
        if (isFirst ? line != kFirstLine : !parseLine(line, plan)) {
            return std::nullopt;
        }
    }
    return std::nullopt;  // cut short
}

}  // namespace fstore
