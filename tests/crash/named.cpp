#include "tests/crash/named.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "os/files.h"
#include "os/fs.h"
#include "tests/crash/session.h"

namespace crash {
namespace {

const std::string kNewBody = "a body that was put by name";

bool isReadable(const Found& found) {
    return found == kAbsent || (found.read == kOk && found.decrypted == kOk);
}

Contents withNewBody(Contents contents) {
    contents.body = kNewBody;
    contents.encrypted = true;
    return contents;
}

bool isThere(const std::string& path) {
    struct stat status {};
    return os::lstat(path.c_str(), &status) == 0;
}

bool putBack(const std::string& id) {
    const std::string descriptor = folderOf(id) + '/' + nameOf(id) + ".dsc";
    const std::string saved = descriptor + ".$o$";
    return isThere(descriptor) || !isThere(saved) ||
           (os::rename(saved.c_str(), descriptor.c_str()) == 0 &&
            os::syncFolder(folderOf(id).c_str()));
}

// The record's own contents, or none for a new one.
std::optional<Contents> contentsBefore(aFileStore& record) {
    if (record.isExist() == 0) {
        return Contents{};
    }
    if (record.read() != kOk || record.decrypt() != kOk) {
        return std::nullopt;
    }
    return contentsOf(record);
}

std::string change(const Step& step) {
    aFileStore record = recordOf(step.id);
    if (step.act == Act::kRemove) {
        return record.remove() == kOk ? "" : step.id + " cannot be removed by its name";
    }
    const std::optional<Contents> before = contentsBefore(record);
    if (!before) {
        return step.id + " cannot be read by its name";
    }
    fill(record, withNewBody(*before));
    return record.write() == kOk ? "" : step.id + " cannot be written by its name";
}

}  // namespace

NamedChange::NamedChange(Step step, const Observation& recovered)
    : step_(std::move(step)), password_(recovered.passwords.front()) {
    Oracle oracle(recovered);
    oracle.begin(step_);
    whileItLasts_ = oracle.allowed();
    oracle.end(step_, kOk);
    done_ = oracle.allowed();
}

std::optional<NamedChange> NamedChange::choose(const Question& question,
                                               const Observation& recovered, std::uint64_t choice) {
    std::vector<std::string> readable;
    std::copy_if(question.ids.begin(), question.ids.end(), std::back_inserter(readable),
                 [&](const std::string& id) { return isReadable(recovered.records.at(id)); });
    if (readable.empty()) {
        return std::nullopt;
    }
    const std::string& id = readable[static_cast<std::size_t>(choice % readable.size())];
    const Found& found = recovered.records.at(id);
    constexpr std::uint64_t kRemovals = 3;  // one in so many
    const bool isRemoval = found != kAbsent && choice / readable.size() % kRemovals == 0;
    return NamedChange(
        isRemoval ? Step{Act::kRemove, id} : Step{Act::kWrite, id, withNewBody(found.contents)},
        recovered);
}

std::string NamedChange::carryOut() const {
    const Session session;
    if (CMN_FILESTORE_S.prepareDBFolders() != kOk) {
        return "the folders cannot be prepared";
    }
    if (!putBack(kPasswordId) || !putBack(step_.id)) {
        return step_.id + " cannot be put back";
    }
    if (CMN_FILESTORE_S.open(password_.c_str()) != kOk) {
        return "the database does not open by its password";
    }
    return change(step_);
}

}  // namespace crash
