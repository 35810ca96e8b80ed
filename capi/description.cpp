#include "capi/description.h"

#include <utility>

#include "capi/border.h"
#include "cmn/wipe.h"

namespace capi {

Description::Description(fstore::RecordInfo info, bool readable, std::uint32_t outcome)
    : info_(std::move(info)),
      address_(info_.address.print()),
      readable_(readable),
      outcome_(outcome) {
    altNames_.reserve(info_.altNames.size());
    for (const std::string& name : info_.altNames) {
        altNames_.push_back(name.c_str());
    }
}

Description::~Description() {
    for (std::string* const text :
         {&info_.label, &info_.subject, &info_.issuer, &info_.keyAlgorithm, &info_.serial,
          &info_.sha256, &info_.keySha256}) {
        wipe(text->data(), text->size());
    }
    for (std::string& name : info_.altNames) {
        wipe(name.data(), name.size());
    }
}

std::uint32_t Description::flags() const noexcept {
    const auto flag = [](bool isSet, std::uint32_t value) { return isSet ? value : 0; };
    return flag(info_.hasBody, FILESTORE_HAS_BODY) |
           flag(info_.bodyEncrypted, FILESTORE_BODY_ENCRYPTED) | flag(info_.isCa, FILESTORE_IS_CA) |
           flag(info_.notBefore.has_value(), FILESTORE_HAS_NOT_BEFORE) |
           flag(info_.notAfter.has_value(), FILESTORE_HAS_NOT_AFTER) |
           flag(readable_, FILESTORE_READABLE);
}

filestore_status Description::copyTo(filestore_info* info) const noexcept {
    filestore_info values = FILESTORE_INFO_INIT;
    values.address = address_.c_str();
    values.folder = info_.address.folder.c_str();
    values.name = info_.address.name.c_str();
    values.kind = static_cast<std::uint32_t>(info_.kind);
    values.flags = flags();
    values.body_size = info_.bodySize;
    values.not_before = info_.notBefore.value_or(0);
    values.not_after = info_.notAfter.value_or(0);
    values.label = info_.label.c_str();
    values.subject = info_.subject.c_str();
    values.issuer = info_.issuer.c_str();
    values.key_algorithm = info_.keyAlgorithm.c_str();
    values.serial = info_.serial.c_str();
    values.sha256 = info_.sha256.c_str();
    values.key_sha256 = info_.keySha256.c_str();
    values.alt_names = altNames_.data();
    values.alt_name_count = altNames_.size();
    values.outcome = outcome_;
    return fill(info, values);
}

}  // namespace capi
