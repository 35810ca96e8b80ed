#include "lib/database/folder_check.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "format/body_reference.h"
#include "format/dsc_text.h"
#include "format/record_name.h"
#include "lib/base/conflict_copy.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/base/name_list.h"
#include "lib/base/sha256.h"
#include "lib/records/descriptor.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

using FindingKind = Finding::Kind;
using Repair = Finding::Repair;

constexpr const char* kHowToSettle =
    "`fstore check --settle` of it with --keep ours or --keep theirs keeps one of the two";

// A file that can name a body: a descriptor under its own name, or with a marker behind it.
struct Namer {
    std::string file;
    std::string_view marker;          // kDscSuffix for the descriptor itself
    std::optional<std::string> body;  // that it names
    std::set<std::string> mentioned;  // bodies of the folder whose names stand elsewhere in it
    std::string fault;                // why its text is not what the store wrote; or empty
    bool isDenied = false;            // the user may not read it, and it may be sound
    bool isObstructed = false;        // something that is no file stands where it belongs
    bool isMerge = false;             // it has two states in it
    Repair repair = Repair::kNone;
    bool stays = true;

    Namer(std::string name, std::string_view itsMarker)
        : file(std::move(name)), marker(itsMarker) {}

    bool isSound() const { return fault.empty(); }
};

// What the store writes, it reads and writes again the same; and the reference to the body has
// the flags for it, and no others. A comment is nobody's fault.
bool isAsWritten(const DescriptorLine& line) {
    if (line.form != DescriptorLine::Form::kAttribute) {
        return line.form == DescriptorLine::Form::kSkipped;
    }
    constexpr unsigned int kReference = kFlagBody | kTypeString;
    if (isBodyReference(line.type, line.id) && line.type != kReference &&
        line.type != (kReference | kFlagEncrypted)) {
        return false;
    }
    std::string text;
    return printDscLine({line.type, line.id, line.value}, text) == kOk && text == line.text;
}

std::string faultOf(std::string_view text, const std::vector<DescriptorLine>& lines) {
    if (text.empty()) {
        return "is empty";
    }
    if (text.find('\0') != std::string_view::npos) {
        return "has zero bytes in it";
    }
    if (text.back() != '\n') {
        return "ends in the middle of a line";
    }
    const auto odd = std::ranges::find_if_not(lines, isAsWritten);
    return odd == lines.end() ? std::string()
                              : fmt::format("has a line that the store does not write: line {}",
                                            odd - lines.begin() + 1);
}

Sha256Digest digestOf(const std::string& path) {
    Sha256 digest;
    readInPieces(path, [&](std::span<const unsigned char> piece) { digest.add(piece); });
    return digest.finish();
}

// The files of a folder that are no descriptors, and which descriptor names each. Those that have
// the names of bodies are numbers here: there may be millions.
class NamedBodies {
public:
    static constexpr std::uint32_t kNobody = 0xFFFFFFFF;

    void add(const std::string& name) {
        if (isUniqueName(name)) {
            numbers_.push_back(numberOf(name));
        } else {
            others_.emplace(name, kNobody);
        }
    }

    void sort() {
        std::ranges::sort(numbers_);
        owners_.assign(numbers_.size(), kNobody);
    }

    bool contains(const std::string& name) const {
        return isUniqueName(name) ? std::ranges::binary_search(numbers_, numberOf(name))
                                  : others_.contains(name);
    }

    // Who names the body, also one that is not there: to be set once.
    std::uint32_t& ownerOf(const std::string& name) {
        if (isUniqueName(name)) {
            const auto found = std::ranges::lower_bound(numbers_, numberOf(name));
            if (found != numbers_.end() && *found == numberOf(name)) {
                return owners_[static_cast<std::size_t>(found - numbers_.begin())];
            }
        } else if (const auto found = others_.find(name); found != others_.end()) {
            return found->second;
        }
        return missing_.try_emplace(name, kNobody).first->second;
    }

    // Calls use(name) for those that nobody names, by name.
    template <class Use>
    void forEachUnowned(Use use) const {
        auto other = others_.begin();
        const auto useOthersBefore = [&](const std::string* name) {
            for (; other != others_.end() && (name == nullptr || other->first < *name); ++other) {
                if (other->second == kNobody) {
                    use(other->first);
                }
            }
        };
        for (std::size_t i = 0; i < numbers_.size(); ++i) {
            if (owners_[i] == kNobody) {
                const std::string name = uniqueName(numbers_[i]);
                useOthersBefore(&name);
                use(name);
            }
        }
        useOthersBefore(nullptr);
    }

private:
    static std::uint32_t numberOf(const std::string& name) {
        std::uint32_t number = 0;
        (void)std::from_chars(name.data(), name.data() + name.size(), number, 16);  // it is one
        return number;
    }

    std::vector<std::uint32_t> numbers_;
    std::vector<std::uint32_t> owners_;             // beside them
    std::map<std::string, std::uint32_t> others_;   // with their owners
    std::map<std::string, std::uint32_t> missing_;  // the same of what is not there
};

// There may be millions of descriptors, so each is read when its turn comes, and only its name is
// kept. Those with a marker are few.
class FolderCheck {
public:
    FolderCheck(std::string folder, std::vector<Finding>& findings, const FileDone& done)
        : folder_(std::move(folder)),
          path_(folderPath(folder_)),
          findings_(findings),
          done_(done) {}

    void run() {
        list();
        for (Namer& namer : marked_) {
            examineText(namer);
        }
        for (Namer& namer : marked_) {
            decide(namer);
        }
        examineAllThatStay();
        for (std::size_t i = 0; i < copies_.size(); ++i) {
            examineCopy(copies_[i], descriptors_.size() + marked_.size() + i);
        }
        for (const Namer& namer : marked_) {
            if (!namer.stays) {
                examineLeaving(namer);
            }
        }
        bodies_.forEachUnowned([this](const std::string& body) { examineBody(body); });
    }

private:
    void list() {
        NameList unknown;
        visitEntries(path_, [&](const FolderEntry& entry) {
            if (entry.type == FolderEntry::Type::kFolder) {
                return;
            }
            const std::string_view marker = markerOf(entry.name);
            if (entry.type == FolderEntry::Type::kOther) {
                unknown.add(entry.name);
            } else if (const auto rival = stateBeside(entry.name)) {
                copies_.emplace_back(entry.name, markerOf(*rival));
            } else if (marker == kDscSuffix) {
                descriptors_.add(entry.name);
            } else if (!marker.empty()) {
                marked_.emplace_back(entry.name, marker);
            } else {
                bodies_.add(entry.name);
            }
        });
        descriptors_.sort();
        std::ranges::sort(marked_, {}, &Namer::file);
        std::ranges::sort(copies_, {}, &Namer::file);
        bodies_.sort();
        unknown.sort();
        for (std::size_t i = 0; i < unknown.size(); ++i) {
            add(FindingKind::kUnknownFile, std::string(unknown[i]),
                "is neither a file nor a folder");
        }
    }

    // By name.
    void examineAllThatStay() {
        std::size_t next = 0;  // of marked_
        const auto examineMarkedBefore = [&](std::string_view file) {
            for (; next < marked_.size() && (file.empty() || marked_[next].file < file); ++next) {
                if (marked_[next].stays) {
                    examineStaying(marked_[next], numberOfMarked(marked_[next]));
                }
            }
        };
        for (std::size_t i = 0; i < descriptors_.size(); ++i) {
            Namer namer(std::string(descriptors_[i]), kDscSuffix);
            examineMarkedBefore(namer.file);
            examineText(namer);
            examineStaying(namer, i);
            if (done_) {
                done_();
            }
        }
        examineMarkedBefore({});
    }

    // For NamedBodies: descriptors, then those with a marker, then copies.
    std::size_t numberOfMarked(const Namer& marked) const {
        return descriptors_.size() + static_cast<std::size_t>(&marked - marked_.data());
    }
    std::string nameOfNumber(std::size_t number) const {
        if (number < descriptors_.size()) {
            return std::string(descriptors_[number]);
        }
        number -= descriptors_.size();
        return number < marked_.size() ? marked_[number].file
                                       : copies_[number - marked_.size()].file;
    }

    void examineText(Namer& namer) const {
        try {
            const SecretBytes bytes = readDescriptorBytes(joined(path_, namer.file));
            const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
            const std::vector<DescriptorLine> lines = parseDescriptor(text);
            namer.body = bodyNameOf(lines);
            namer.fault = faultOf(text, lines);
            if (const auto sides = mergeSidesOf(text)) {
                noteMentions(lines, namer);
                namer.isMerge = true;
            } else if (!namer.body) {
                noteMentions(lines, namer);
            }
        } catch (const Failure& failure) {
            namer.fault = fmt::format("cannot be read: {}", failure.what());
            namer.isDenied = failure.isDenied();
        }
    }

    // A damaged reference may still show the name of its body: as the data of another kind of
    // line, or in one that is no data at all. Where the reference can be read, other lines are
    // no reference: a number may look like the name of any body.
    void noteMentions(const std::vector<DescriptorLine>& lines, Namer& namer) const {
        constexpr std::string_view kBetween = " \t\r\v\f";
        for (const DescriptorLine& line : lines) {
            std::string_view text = line.hasNumbers() ? line.data : line.text;
            while (!text.empty()) {
                const std::size_t end = std::min(text.find_first_of(kBetween), text.size());
                if (const std::string word(text.substr(0, end));
                    word != namer.body && bodies_.contains(word)) {
                    namer.mentioned.insert(word);
                }
                text.remove_prefix(std::min(end + 1, text.size()));
            }
        }
    }

    // What becomes of the file, as far as its name and its own text say.
    void decide(Namer& namer) {
        namer.stays = false;
        namer.repair = Repair::kMoveAway;
        if (namer.marker == kDeletedMarker && namer.isSound()) {
            namer.repair = Repair::kDelete;  // the removal was acknowledged
        }
        if (namer.marker == kOldMarker) {
            decideSaved(namer);
        }
    }

    void decideSaved(Namer& namer) {
        const std::string place(withoutMarker(namer.file, kOldMarker));
        if (!descriptors_.find(place)) {
            namer.stays = true;
            const bool isFree = !exists(joined(path_, place));
            namer.repair = isFree ? Repair::kPutBack : Repair::kNone;
            namer.isObstructed = !isFree;
        } else if (!isReadable(place)) {
            namer.stays = true;
        } else if (namer.isSound()) {
            namer.repair = Repair::kDelete;  // the replacement was acknowledged
        }
    }

    // A conflict copy is never a record, but somebody may decide that it has the better state: what
    // it names stays.
    void examineCopy(Namer& copy, std::size_t number) {
        const std::string rival = *stateBeside(copy.file);
        addDoubtful(FindingKind::kConflict, copy.file,
                    exists(joined(path_, rival))
                        ? fmt::format("is a second state of {}; {}", rival, kHowToSettle)
                        : fmt::format("is a second state of {}, which is not there; {}", rival,
                                      kHowToSettle));
        if (copy.marker.empty()) {
            return;
        }
        examineText(copy);
        mentioned_.insert(copy.mentioned.begin(), copy.mentioned.end());
        (copy.isDenied ? isPartlyUnread_ : isInDoubt_) |= !copy.isSound();
        if (copy.body) {
            own(*copy.body, number);
        }
    }

    // The record, if the store can read it, and the digest of its body file.
    struct Readable {
        RecordHead head;
        std::optional<Sha256Digest> body;
    };
    std::optional<Readable> read(const Namer& namer, std::optional<Failure>& reason) const {
        try {
            RecordHead head =
                RecordHead::read({folder_, std::string(withoutMarker(namer.file, kDscSuffix))});
            auto body = head.hasBody() ? std::optional(digestOf(head.bodyPath())) : std::nullopt;
            return Readable{std::move(head), body};
        } catch (const Failure& failure) {
            reason = failure;
            return std::nullopt;
        }
    }

    bool isReadable(const std::string& descriptor) const {
        Namer current(descriptor, kDscSuffix);
        examineText(current);
        std::optional<Failure> ignored;
        return current.isSound() && read(current, ignored);
    }

    // `number` is that of the file for nameOfNumber().
    void examineStaying(const Namer& namer, std::size_t number) {
        mentioned_.insert(namer.mentioned.begin(), namer.mentioned.end());
        if (namer.marker == kDscSuffix) {
            examineDescriptor(namer, number);
        } else if (namer.repair == Repair::kPutBack) {
            add(FindingKind::kSavedDescriptor, namer.file,
                "is the old state of an interrupted write", namer.repair);
            isInDoubt_ = isInDoubt_ || !namer.isSound();  // it may name any body
        } else if (namer.isObstructed) {
            addDoubtful(FindingKind::kSavedDescriptor, namer.file,
                        "is the old state of an interrupted write, and cannot be put back: a "
                        "folder, a link or a special file has its name; move that elsewhere");
            isInDoubt_ = isInDoubt_ || !namer.isSound();
        } else {
            addDoubtful(FindingKind::kSavedDescriptor, namer.file,
                        "is the old state of a record that is damaged now");
        }
        if (!namer.body) {
            return;
        }
        if (std::uint32_t& owner = bodies_.ownerOf(*namer.body); owner == NamedBodies::kNobody) {
            owner = static_cast<std::uint32_t>(number);
        } else {
            damaged(namer, fmt::format("names the same body file as {}", nameOfNumber(owner)));
        }
    }

    void examineDescriptor(const Namer& namer, std::size_t number) {
        if (namer.isDenied) {
            isPartlyUnread_ = true;
            add(FindingKind::kUnreadable, namer.file, namer.fault);
            return;
        }
        std::optional<Failure> reason;
        const std::optional<Readable> record = read(namer, reason);
        if (namer.isMerge) {
            isInDoubt_ = true;
            for (const std::string& body : namer.mentioned) {
                own(body, number);
            }
            addDoubtful(
                FindingKind::kConflict, namer.file,
                fmt::format("has two states in it, with the marks of a merge; {}", kHowToSettle));
        } else if (namer.body && !isBodyName(*namer.body)) {
            damaged(namer, fmt::format("names {} as its body file, and no body can have that name",
                                       *namer.body));
        } else if (namer.body && !bodies_.contains(*namer.body)) {
            damaged(namer, fmt::format("names the body file {}, which is missing", *namer.body));
        } else if (!namer.isSound()) {
            damaged(namer, namer.fault);
        } else if (!record && reason->isDenied()) {
            add(FindingKind::kUnreadable, namer.file, reason->what());
        } else if (!record) {
            damaged(namer, reason->what());
        } else if (isReferenceOfSecret(record->head)) {
            damaged(namer, "names a body as plain, though the body's SHA-256 is encrypted");
        } else if (!isBodyAsSaid(*record)) {
            damaged(namer, "names a body that does not match its SHA-256");
        }
    }

    // Nobody encrypts the digest of what everybody can read.
    static bool isReferenceOfSecret(const RecordHead& record) {
        bool isSecret = false;
        for (unsigned int i = 0; i < record.count(); ++i) {
            isSecret = isSecret || (record.id(i) == attr::kSha256 && record.isEncrypted(i));
        }
        return isSecret && record.hasBody() && !record.isBodyEncrypted();
    }

    // As far as it can be told without the key: a plain body is the one that its SHA-256 was taken
    // of, and an encrypted one is not.
    static bool isBodyAsSaid(const Readable& record) {
        const auto digest = record.head.findSha256();
        return !digest || !record.body ||
               std::ranges::equal(*digest, *record.body) != record.head.isBodyEncrypted();
    }

    void examineLeaving(const Namer& namer) {
        const char* const message =
            namer.marker == kNewMarker       ? "is a leftover of an interrupted write"
            : namer.marker == kDeletedMarker ? "is a leftover of an interrupted removal"
                                             : "is the old state of a finished write";
        const FindingKind kind = namer.marker == kNewMarker       ? FindingKind::kNewDescriptor
                                 : namer.marker == kDeletedMarker ? FindingKind::kRemoved
                                                                  : FindingKind::kSavedDescriptor;
        if (namer.isDenied || (isPartlyUnread_ && !isInDoubt_)) {
            add(FindingKind::kUnreadable, namer.file,
                std::string(message) + ", and stays until all of the folder can be read");
            ownBodyOf(namer);
            isPartlyUnread_ = true;
            return;
        }
        if (isInDoubt_ && namer.body && !isOwned(*namer.body)) {
            // Its body may be that of the damaged record, and would have no name any more.
            addDoubtful(kind, namer.file,
                        std::string(message) + ", and stays while a record here is damaged");
            ownBodyOf(namer);
            return;
        }
        add(kind, namer.file, message, namer.repair);
        if (namer.body) {
            const auto [entry, isFirst] = leaving_.emplace(*namer.body, namer.repair);
            if (!isFirst && namer.repair == Repair::kMoveAway) {
                entry->second = namer.repair;  // one that keeps it is enough
            }
        }
    }

    bool isOwned(const std::string& body) { return bodies_.ownerOf(body) != NamedBodies::kNobody; }

    // Unless it is another's.
    void own(const std::string& body, std::size_t number) {
        if (!isOwned(body)) {
            bodies_.ownerOf(body) = static_cast<std::uint32_t>(number);
        }
    }

    // A leftover that stays keeps its body.
    void ownBodyOf(const Namer& leftover) {
        if (leftover.body) {
            own(*leftover.body, numberOfMarked(leftover));
        }
    }

    void examineBody(const std::string& body) {
        if (const auto found = leaving_.find(body); found != leaving_.end()) {
            add(FindingKind::kUnnamedBody, body, "is the body of a leftover", found->second);
        } else if (!isUniqueName(body)) {
            add(FindingKind::kUnknownFile, body, "is an unknown file");
        } else if (isPartlyUnread_ && !isInDoubt_) {
            add(FindingKind::kUnreadable, body,
                "may belong to a descriptor that cannot be read, and stays");
        } else if (isInDoubt_ || mentioned_.contains(body)) {
            addDoubtful(FindingKind::kUnnamedBody, body,
                        "is not named by any readable descriptor, but may belong to a damaged one");
        } else {
            add(FindingKind::kUnnamedBody, body, "is a body file that no descriptor names",
                Repair::kMoveAway);
        }
    }

    void damaged(const Namer& namer, const std::string& message) {
        isInDoubt_ = true;
        add(FindingKind::kDamaged, namer.file, message);
    }

    void add(FindingKind kind, const std::string& name, const std::string& message,
             Repair repair = Repair::kNone) {
        findings_.push_back({kind, joined(path_, name), message, repair});
    }

    void addDoubtful(FindingKind kind, const std::string& name, const std::string& message) {
        add(kind, name, message);
        findings_.back().isDoubtful = true;
    }

    std::string folder_;
    std::string path_;
    std::vector<Finding>& findings_;
    const FileDone& done_;
    NameList descriptors_;
    std::vector<Namer> marked_;              // by name
    std::vector<Namer> copies_;              // conflict copies; the marker is their rival's
    NamedBodies bodies_;                     // what a descriptor could name, whatever its name
    std::map<std::string, Repair> leaving_;  // body: what becomes of the files that name it
    std::set<std::string> mentioned_;        // bodies, by files that stay
    bool isInDoubt_ = false;       // a descriptor that stays may name a body that has no owner
    bool isPartlyUnread_ = false;  // so may one that the user may not read
};

}  // namespace

void checkFolder(const std::string& folder, std::vector<Finding>& findings, const FileDone& done) {
    FolderCheck(folder, findings, done).run();
}

}  // namespace fstore
