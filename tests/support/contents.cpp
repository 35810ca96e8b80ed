#include "tests/support/contents.h"

#include <ostream>
#include <stdexcept>

namespace {

void require(Status status, const char* what) {
    if (status != kOk) {
        throw std::runtime_error(std::string(what) + ": status " + std::to_string(status));
    }
}

std::string printable(const std::string& text) {
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const char* const digits = "0123456789abcdef";
        shown += byte < 0x20 || byte > 0x7e
                     ? std::string("\\x") + digits[byte >> 4] + digits[byte & 15]
                     : std::string(1, c);
    }
    return shown;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Contents& contents) {
    for (const Contents::Attribute& attribute : contents.attributes) {
        out << "attribute " << attribute.type << ' ' << attribute.id
            << (attribute.encrypted ? " encrypted \"" : " \"") << printable(attribute.data)
            << "\"; ";
    }
    if (!contents.body) {
        return out << "no body";
    }
    return out << (contents.encrypted ? "encrypted body \"" : "body \"")
               << printable(*contents.body) << '"';
}

// A handle cannot take a body away: that takes a record without one.
void fill(aFileStore& record, const Contents& contents) {
    if (!contents.body && record.hasBody() != 0) {
        throw std::runtime_error("fill: the record has a body and cannot lose it");
    }
    record.removeAttrs();
    for (const Contents::Attribute& attribute : contents.attributes) {
        require(record.addAttr(attribute.type, attribute.id, dataOf(attribute.data),
                               sizeOf(attribute.data)),
                "addAttr");
        require(record.setAttrFlag(record.getAttrCount() - 1, attribute.encrypted ? 1 : 0),
                "setAttrFlag");
    }
    if (contents.body) {
        require(record.setBody(dataOf(*contents.body), sizeOf(*contents.body)), "setBody");
    }
    require(record.setBodyFlag(contents.encrypted ? 1 : 0), "setBodyFlag");
}

Contents contentsOf(const aFileStore& record) {
    Contents contents;
    for (unsigned int i = 0; i < record.getAttrCount(); ++i) {
        const auto* const data = reinterpret_cast<const char*>(record.getAttr(i));
        contents.attributes.push_back({record.getAttrType(i), record.getAttrID(i),
                                       std::string(data, record.getAttrSize(i)),
                                       record.getAttrFlag(i) != 0});
    }
    if (record.hasBody() != 0) {
        const auto* const data = reinterpret_cast<const char*>(record.getBody());
        contents.body = data == nullptr ? std::string() : std::string(data, record.getBodySize());
    }
    contents.encrypted = record.getBodyFlag() != 0;
    return contents;
}
