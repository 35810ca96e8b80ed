#include "lib/records/record_copy.h"

#include <algorithm>
#include <utility>

#include "lib/records/record.h"
#include "lib/records/record_head.h"

namespace fstore {
namespace {

SecretBytes copyOf(std::span<const unsigned char> bytes) {
    return {bytes.begin(), bytes.end()};
}

}  // namespace

template <class AnyRecord>
void RecordCopy::copyAttributes(const AnyRecord& record) {
    const unsigned int count = record.count();
    attributes_.reserve(count);
    for (unsigned int i = 0; i < count; ++i) {
        const bool known = record.isKnown(i);
        attributes_.push_back({record.type(i), record.id(i), record.isEncrypted(i), known,
                               known ? copyOf(record.bytes(i)) : SecretBytes()});
    }
}

RecordCopy::RecordCopy(const Record& record)
    : address_(record.address()),
      hasBody_(record.hasBody()),
      bodyEncrypted_(record.isBodyEncrypted()),
      bodySize_(record.body().size()) {
    copyAttributes(record);
    if (hasBody_ && (record.isReadable() || !bodyEncrypted_)) {
        body_ = copyOf(record.body());
    }
}

RecordCopy::RecordCopy(const RecordHead& head)
    : address_(head.address()),
      hasBody_(head.hasBody()),
      bodyEncrypted_(head.isBodyEncrypted()),
      bodySize_(head.bodySize()) {
    copyAttributes(head);
}

bool RecordCopy::isReadable() const {
    return (!bodyEncrypted_ || body_) && std::ranges::all_of(attributes_, &Attribute::known);
}

bool RecordCopy::hasAttribute(unsigned int id) const {
    return std::ranges::find(attributes_, id, &Attribute::id) != attributes_.end();
}

void RecordCopy::setAttribute(unsigned int type, unsigned int id, SecretBytes bytes,
                              bool encrypted) {
    attributes_.reserve(attributes_.size() + 1);
    (void)removeAll(id);
    attributes_.push_back({type, id, encrypted, true, std::move(bytes)});
}

unsigned int RecordCopy::removeAll(unsigned int id) {
    return static_cast<unsigned int>(
        std::erase_if(attributes_, [id](const Attribute& each) { return each.id == id; }));
}

void RecordCopy::setBody(SecretBytes bytes, bool encrypted) {
    bodySize_ = bytes.size();
    body_ = std::move(bytes);
    hasBody_ = true;
    bodyEncrypted_ = encrypted;
}

}  // namespace fstore
