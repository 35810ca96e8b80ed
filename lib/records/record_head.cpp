#include "lib/records/record_head.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "format/body_reference.h"
#include "format/record_name.h"
#include "lib/base/files.h"
#include "os/fs.h"

namespace fstore {

RecordHead RecordHead::read(const Address& address) {
    RecordHead head = readWithoutBody(address);
    if (head.hasBody()) {
        head.findBody();
    }
    return head;
}

RecordHead RecordHead::readWithoutBody(const Address& address) {
    const std::string path = descriptorPath(address);
    if (!exists(path)) {
        throw NoRecord(address.print());
    }
    RecordHead head(address);
    std::vector<DescriptorLine> lines = readDescriptor(path);
    if (std::ranges::any_of(lines, &DescriptorLine::isDamaged)) {
        checkRead(kMalformed, address);
    }
    if (const DescriptorLine* const reference = findBodyReference(lines)) {
        head.nameBody(*reference);
    }
    std::erase_if(lines, [](const DescriptorLine& line) {
        return line.form != DescriptorLine::Form::kAttribute || (line.type & kFlagBody) != 0;
    });
    head.attributes_ = std::move(lines);
    return head;
}

void RecordHead::nameBody(const DescriptorLine& reference) {
    const std::string name(bodyNameIn(reference.value));
    if (!isBodyName(name)) {
        checkRead(kMalformed, address_);
    }
    bodyPath_ = joined(folderPath(address_.folder), name);
    bodyEncrypted_ = (reference.type & kFlagEncrypted) != 0;
}

void RecordHead::findBody() {
    struct stat status {};
    const bool isThere = os::lstat(bodyPath_.c_str(), &status) == 0;
    if (!isThere || S_ISLNK(status.st_mode)) {
        checkRead(kMissing, address_);
    }
    if (!S_ISREG(status.st_mode)) {
        checkRead(kIo, address_);
    }
    bodySize_ = static_cast<std::uint64_t>(status.st_size);
    if (bodySize_ > Record::kMostBodyFile) {
        throw Failure(kMalformed,
                      fmt::format("cannot read {}: its body {} has {} bytes, and no body has more "
                                  "than {}",
                                  address_.print(), bodyPath_, bodySize_, Record::kMostBodyFile),
                      address_.print());
    }
}

bool RecordHead::hasSecrets() const {
    return bodyEncrypted_ || std::ranges::any_of(attributes_, [](const DescriptorLine& attribute) {
               return (attribute.type & kFlagEncrypted) != 0;
           });
}

std::optional<std::span<const unsigned char>> RecordHead::findSha256() const {
    for (unsigned int i = 0; i < count(); ++i) {
        if (id(i) == attr::kSha256 && type(i) == kTypeBinary && isKnown(i)) {
            return bytes(i);
        }
    }
    return std::nullopt;
}

Record readUnasked(const RecordHead& head) {
    if (head.bodySize() > kMostUnasked) {
        throw TooLarge(
            kInvalid,
            fmt::format("{} was not decrypted: its body {} has {} bytes, and {} is the "
                        "most that is read unasked; `fstore get` reads it",
                        head.address().print(), head.bodyPath(), head.bodySize(), kMostUnasked),
            head.address().print());
    }
    return Record::read(head.address());
}

unsigned int RecordHead::type(unsigned int index) const {
    return attributes_[index].type & kTypeMask;
}

bool RecordHead::isEncrypted(unsigned int index) const {
    return (attributes_[index].type & kFlagEncrypted) != 0;
}

std::span<const unsigned char> RecordHead::bytes(unsigned int index) const {
    const std::string& value = attributes_[index].value;
    return {reinterpret_cast<const unsigned char*>(value.data()), value.size()};
}

}  // namespace fstore
