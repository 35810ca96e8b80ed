// Any folder of files where a database's folder should be, seen by the library and by the store's
// own reading: both find the same records with the same contents, and refuse the same ones for the
// same reason; what `fstore check` calls sound can be read, and its repair changes no record.
#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "format/record_name.h"
#include "fuzz/folder_entries.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/database/folder_check.h"
#include "lib/database/inspect.h"
#include "lib/records/catalogue.h"
#include "lib/records/descriptor.h"
#include "lib/records/record.h"
#include "lib/records/record_head.h"
#include "lib/records/record_info.h"
#include "tests/crash/session.h"
#include "tests/crash/tree.h"

namespace {

using crash::Session;
using fstore::Address;
using fstore::Failure;
using fstore::Finding;
using fstore::Record;
using fstore::RecordHead;

const std::string kName = "keys";
const std::string kFolder = "./db/keys";

// What a reader finds of a record, as it is on disk.
struct Seen {
    Status status = kOk;
    std::string reason;  // the library's
    Contents contents;   // counts when `status` is kOk
};

// By the record's name.
using View = std::map<std::string, Seen>;

// Ends the run unless `holds`.
void agree(bool holds, const std::string& name, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "record \"%s\": %s\n", name.c_str(), what);
        std::abort();
    }
}

// A saved descriptor for the store's list, which looks at the end of a name only, and an unknown
// file for the library, which therefore never has the store list a folder.
bool looksSaved(const std::string& name) {
    return hasMarker(name, kOldMarker) && fstore::markerOf(name).empty();
}

// The names of the folder's records, as the list has them: descriptors in place, and saved ones
// alone. None when the store does not list the folder.
std::optional<std::vector<std::string>> namesByStore() {
    std::vector<std::string> names;
    aFileStoreList list;
    if (list.readFromFolder(kFolder.c_str()) != kOk) {
        return std::nullopt;
    }
    for (aFileStore record = list.getFirst(); record.target() != nullptr; record = list.getNext()) {
        names.emplace_back(record.getName());
    }
    return names;
}

// The same of a folder that the store cannot list without an unknown file becoming a record.
std::vector<std::string> namesByHand() {
    std::vector<std::string> names;
    for (const fstore::FolderEntry& entry : fstore::listFolder(kFolder)) {
        const std::string_view marker = fstore::markerOf(entry.name);
        const bool isSaved = marker == kOldMarker;
        const std::string descriptor(isSaved ? withoutMarker(entry.name, kOldMarker) : entry.name);
        if (entry.type == fstore::FolderEntry::Type::kFile &&
            (marker == kDscSuffix || (isSaved && !fstore::exists(joinPath(kFolder, descriptor))))) {
            names.emplace_back(withoutMarker(descriptor, kDscSuffix));
        }
    }
    return names;
}

std::optional<View> viewOfStore() {
    const auto names =
        std::ranges::any_of(fstore::listFolder(kFolder), looksSaved, &fstore::FolderEntry::name)
            ? namesByHand()
            : namesByStore();
    if (!names) {
        return std::nullopt;
    }
    View view;
    for (const std::string& name : *names) {
        aFileStore record;
        require(record.setFolderName(kFolder.c_str()) == kOk &&
                record.setName(name.c_str()) == kOk);
        Seen& seen = view[name];
        seen.status = record.read();
        seen.contents = contentsOf(record);
    }
    return view;
}

template <class Read>
Seen seenBy(Read read) {
    try {
        return {kOk, "", read()};
    } catch (const Failure& failure) {
        return {failure.status(), failure.what(), {}};
    }
}

template <class AnyRecord>
Contents::Attribute attributeOf(const AnyRecord& record, unsigned int index) {
    const auto bytes = record.bytes(index);
    return {record.type(index),
            record.id(index),
            {bytes.begin(), bytes.end()},
            record.isEncrypted(index)};
}

template <class AnyRecord>
Contents withoutBody(const AnyRecord& record) {
    Contents contents;
    for (unsigned int i = 0; i < record.count(); ++i) {
        contents.attributes.push_back(attributeOf(record, i));
    }
    contents.encrypted = record.isBodyEncrypted();
    return contents;
}

Contents contentsByHead(const Address& address) {
    const RecordHead head = RecordHead::read(address);
    Contents contents = withoutBody(head);
    if (head.hasBody()) {
        contents.body.emplace();
        fstore::readInPieces(head.bodyPath(), [&](std::span<const unsigned char> piece) {
            contents.body->append(piece.begin(), piece.end());
        });
        agree(contents.body->size() == head.bodySize(), address.name, "its body has another size");
    }
    return contents;
}

Contents contentsByRecord(const Address& address) {
    const Record record = Record::read(address);
    Contents contents = withoutBody(record);
    if (record.hasBody()) {
        contents.body.emplace(record.body().begin(), record.body().end());
    }
    return contents;
}

// What ls shows of a record: it reads heads, show reads records.
void compareInfos(const Address& address) {
    const fstore::RecordInfo head = infoOf(RecordHead::read(address));
    const fstore::RecordInfo record = infoOf(Record::read(address));
    agree(head.kind == record.kind && head.label == record.label &&
              head.subject == record.subject && head.issuer == record.issuer &&
              head.keyAlgorithm == record.keyAlgorithm && head.altNames == record.altNames &&
              head.serial == record.serial && head.sha256 == record.sha256 &&
              head.keySha256 == record.keySha256 && head.notBefore == record.notBefore &&
              head.notAfter == record.notAfter && head.isCa == record.isCa &&
              head.hasBody == record.hasBody && head.bodyEncrypted == record.bodyEncrypted &&
              head.bodySize == record.bodySize,
          address.name, "its head shows something else than the record");
}

// The store's view, which has put descriptors back, against the library's.
void compareRecords(const View& view) {
    const std::vector<Address> found = fstore::recordsIn(kName);
    for (const auto& [name, seen] : view) {
        agree(std::ranges::binary_search(found, Address{kName, name}), name,
              "only the store finds it");
    }
    for (const Address& address : found) {
        const auto entry = view.find(address.name);
        agree(entry != view.end(), address.name, "only the library finds it");
        const Seen& store = entry->second;
        const Seen head = seenBy([&] { return contentsByHead(address); });
        const Seen record = seenBy([&] { return contentsByRecord(address); });
        agree(record.status == store.status, address.name, "a record refuses it differently");
        agree(head.status == store.status, address.name, "its head refuses it differently");
        agree(head.reason == record.reason, address.name, "head and record name other reasons");
        if (store.status == kOk) {
            agree(record.contents == store.contents, address.name, "the record differs");
            agree(head.contents == store.contents, address.name, "the head differs");
            compareInfos(address);
        }
    }
}

std::vector<Finding> findingsOf() {
    std::vector<Finding> findings;
    fstore::checkFolder(kName, findings);
    return findings;
}

// Of a folder in which all descriptors are in their place.
void compareFindings(const View& view) {
    std::map<std::string, bool> isFound;
    for (const Finding& finding : findingsOf()) {
        isFound[finding.path] = true;
    }
    for (const auto& [name, seen] : view) {
        agree(seen.status == kOk || isFound[fstore::descriptorPath({kName, name})], name,
              "check does not find what cannot be read");
    }
}

// As `fstore check --repair` does.
void repairAll() {
    for (;;) {
        std::vector<Finding> found;
        std::ranges::copy_if(findingsOf(), std::back_inserter(found), &Finding::isRepairable);
        if (found.empty()) {
            return;
        }
        (void)fstore::repair(found, 0, std::nullopt);
    }
}

// A record that could be read before can be read afterwards, and there is no other that can.
void compareRepaired(const View& before) {
    const auto after = viewOfStore();
    agree(after.has_value(), kName, "cannot be listed after a repair");
    for (const auto& [name, seen] : before) {
        if (seen.status == kOk) {
            const auto entry = after->find(name);
            agree(entry != after->end(), name, "is gone after a repair");
            agree(entry->second.status == kOk && entry->second.contents == seen.contents, name,
                  "is another one after a repair");
        }
    }
    for (const auto& [name, seen] : *after) {
        agree(seen.status != kOk || before.contains(name), name, "appears after a repair");
    }
}

// A record that the store itself writes, with encrypted parts.
void writeRecord(Input& input) {
    Contents contents;
    for (std::size_t count = input.below(4); count > 0; --count) {
        const auto id = static_cast<unsigned int>(0x100 + input.below(0x12));
        const bool isText = input.below(3) == 0;
        contents.attributes.push_back(
            isText ? Contents::Attribute{4, id, "text", false}
                   : Contents::Attribute{2, id, input.bytes(), input.below(2) == 0});
    }
    contents.encrypted = input.below(2) == 0;
    contents.body = input.bytes();
    aFileStore record;
    require(record.setFolderName(kFolder.c_str()) == kOk);
    require(record.setName(input.below(2) == 0 ? "a" : "d") == kOk);
    fill(record, contents);
    (void)record.write();  // an empty body may be plain
}

// Makes the same folder again and again: a cipher does not do the same thing twice.
class Folder {
public:
    explicit Folder(Input input) : entries_(input) {
        crash::clearBelow(kFolder);
        for (std::size_t count = entries_.below(3); count > 0; --count) {
            writeRecord(entries_);
        }
        written_ = crash::readBelow(kFolder.substr(2));
    }

    void make() const {
        crash::clearBelow(kFolder);
        for (const auto& [path, node] : written_) {
            writeFile(path, node.bytes);
        }
        for (Input input = entries_; !input.isEmpty();) {
            makeEntry(input, kFolder);
        }
    }

private:
    crash::Tree written_;
    Input entries_;  // what the input has left for the other entries
};

// A database, made once: an input works on one folder.
class Place {
public:
    Place() {
        crash::writeCurrentFolder(
            {{"outside", {true, ""}}, {"outside/file", {false, "untouched"}}});
        const Session session;
        require(CMN_FILESTORE_S.prepareDBFolders() == kOk);
    }

private:
    crash::Scratch scratch_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Place place;
    const Session session;
    require(CMN_FILESTORE_S.open("") == kOk);

    const Folder folder(Input(data, size));
    folder.make();
    const auto view = viewOfStore();
    if (view) {
        compareRecords(*view);
        compareFindings(*view);
        folder.make();
        repairAll();
        compareRepaired(*view);
    }
    fstore::removeTree("./db.lost");
    return 0;
}
