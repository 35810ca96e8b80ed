#include "tests/fault/record_workloads.h"

#include <filesystem>
#include <stdexcept>

#include "format/dsc_text.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

const Contents kOld{
    {{kTypeBinary, 1, "old secret", true}, {kTypeText, 2, "old", false}}, "old body", true};
const Contents kNew{
    {{kTypeBinary, 1, "new secret", true}, {kTypeText, 2, "new", false}}, "new body", true};
const Contents kOldBodiless{{{kTypeText, 2, "old", false}}, {}, false};
const Contents kNewBodiless{{{kTypeBinary, 1, "new secret", true}}, {}, false};

void require(bool holds, const std::string& what) {
    if (!holds) {
        throw std::runtime_error(what);
    }
}

std::function<void()> stored(const Contents& contents) {
    return [&contents] { require(TestStore::save("a", contents) == kOk, "arrange"); };
}

// As when the process died between the two renames of a write.
std::function<void()> interrupted(const Contents& contents) {
    return [&contents] {
        stored(contents)();
        const std::string descriptor = std::string(TestStore::kFolder) + "/a.dsc";
        fs::rename(descriptor, descriptor + ".$o$");
    };
}

// As when it died before the old descriptor was deleted.
std::function<void()> withLeftover(const Contents& contents) {
    return [&contents] {
        stored(contents)();
        support::writeFile(std::string(TestStore::kFolder) + "/a.dsc.$o$",
                           "00000004 00000001 older\n");
    };
}

Status writeIt(aFileStore& record) {
    return record.write();
}

Status removeIt(aFileStore& record) {
    return record.remove();
}

}  // namespace

const std::vector<Workload>& recordWorkloads() {
    static const std::function<void()> nothing = [] {};
    static const std::vector<Workload> workloads{
        {"FirstWrite", nothing, "a", kNew, writeIt, {}, kNew},
        {"FirstWriteWithoutBody", nothing, "a", kNewBodiless, writeIt, {}, kNewBodiless},
        {"UnnamedWrite", nothing, "", kNew, writeIt, {}, kNew},
        {"Overwrite", stored(kOld), "a", kNew, writeIt, kOld, kNew},
        {"BodyToNone", stored(kOld), "a", kNewBodiless, writeIt, kOld, kNewBodiless},
        {"NoneToBody", stored(kOldBodiless), "a", kNew, writeIt, kOldBodiless, kNew},
        {"WriteOverAnInterruptedOne", interrupted(kOld), "a", kNew, writeIt, kOld, kNew},
        {"WriteOverALeftover", withLeftover(kOld), "a", kNew, writeIt, kOld, kNew},
        {"Remove", stored(kOld), "a", {}, removeIt, kOld, {}},
        {"RemoveWithoutBody", stored(kOldBodiless), "a", {}, removeIt, kOldBodiless, {}},
        {"RemoveInterrupted", interrupted(kOld), "a", {}, removeIt, kOld, {}},
        {"RemoveWithLeftover", withLeftover(kOld), "a", {}, removeIt, kOld, {}},
    };
    return workloads;
}

std::optional<Contents> found(const Workload& workload) {
    std::string name = workload.record;
    if (name.empty()) {
        aFileStoreList list;
        require(list.readFromFolder(TestStore::kFolder) == kOk, "scan");
        const aFileStore only = list.getFirst();
        if (only.target() == nullptr) {
            return {};
        }
        require(list.getNext().target() == nullptr, "one record only");
        name = only.getName();
    }
    Contents contents;
    const Status status = TestStore::tryLoad(name, contents);
    require(status == kOk || status == kMissing, "a reader gets status " + std::to_string(status));
    return status == kOk ? std::optional(contents) : std::nullopt;
}

FolderImage::FolderImage(const Workload& workload) {
    workload.arrange();
    files_ = TestStore::files();
}

void FolderImage::place() const {
    fs::remove_all(TestStore::kFolder);
    fs::create_directory(TestStore::kFolder);
    for (const auto& [name, content] : files_) {
        support::writeFile(std::string(TestStore::kFolder) + "/" + name, content);
    }
}

aFileStore recordOf(const Workload& workload) {
    aFileStore record = TestStore::record(workload.record);
    fill(record, workload.contents);
    return record;
}
