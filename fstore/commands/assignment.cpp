#include "fstore/commands/assignment.h"

#include <cstring>

#include <fmt/format.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/records/attributes.h"
#include "lib/records/kept_type.h"
#include "lib/work/put.h"

namespace fstore {
namespace {

constexpr std::uint64_t kMostValue = 16 << 20;  // bytes of a value from a file

[[noreturn]] void refuse(std::string_view text, std::string_view why) {
    throw Failure(kInvalid, fmt::format("{}: {}", text, why));
}

unsigned int parseType(std::string_view left, std::string_view name) {
    if (const auto type = typeNamed(name)) {
        return *type;
    }
    refuse(left, "the type is number, binary, string or text");
}

std::string_view asText(const SecretBytes& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

SecretBytes numberBytes(std::string_view left, std::string_view text) {
    const bool isNumber = !text.empty() && text[0] >= '0' && text[0] <= '9';
    const auto number = isNumber ? parseNumber(text) : std::nullopt;
    if (!number) {
        refuse(left, "a number has 32 bits, in decimal or after 0x");
    }
    SecretBytes bytes(sizeof *number);
    std::memcpy(bytes.data(), &*number, sizeof *number);
    return bytes;
}

SecretBytes valueFromFile(std::string_view left, unsigned int type, const std::string& name) {
    SecretBytes bytes = InputFile(name).readAll(kMostValue);
    if (type == kTypeBinary) {
        return bytes;
    }
    if (!bytes.empty() && bytes.back() == '\n') {
        bytes.pop_back();
    }
    return type == kTypeNumber ? numberBytes(left, asText(bytes)) : bytes;
}

SecretBytes valueFromText(std::string_view left, unsigned int type, std::string_view text) {
    if (type == kTypeNumber) {
        return numberBytes(left, text);
    }
    if (type == kTypeBinary) {
        auto bytes = fromHex(text);
        if (!bytes) {
            refuse(left, "binary takes pairs of hexadecimal digits");
        }
        SecretBytes value(bytes->begin(), bytes->end());
        wipe(bytes->data(), bytes->size());
        return value;
    }
    return {text.begin(), text.end()};
}

}  // namespace

Assignment Assignment::parse(const std::string& text, StandardInput& input) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        refuse(text, "an assignment is NAME=VALUE");
    }
    const std::string_view left = std::string_view(text).substr(0, equals);
    std::string_view right = std::string_view(text).substr(equals + 1);
    const std::size_t colon = left.find(':');
    Assignment assignment;
    assignment.name = left.substr(0, colon);
    assignment.id = parseEditableId(assignment.name);
    assignment.type =
        colon == std::string_view::npos ? kTypeText : parseType(left, left.substr(colon + 1));
    if (assignment.id == attr::kLabel && assignment.type != kTypeText &&
        assignment.type != kTypeBinary) {
        refuse(text, "a label is a text");
    }
    const bool fromFile = right.starts_with('@') && !right.starts_with("@@");
    right.remove_prefix(right.starts_with('@') ? 1 : 0);
    if (fromFile) {
        const std::string file(right);
        input.claimIfNamed(file, "a value");
        assignment.value = valueFromFile(left, assignment.type, file);
    } else {
        assignment.value = valueFromText(left, assignment.type, right);
    }
    return assignment;
}

void Assignment::applyTo(Record& record, bool encrypt) const {
    try {
        AttributeChange{id, type, value, encrypt}.applyTo(record);
    } catch (const Failure& failure) {
        if (failure.status() != kMalformed) {
            throw;
        }
        refuse(name,
               "a text cannot be stored that has a line feed or a NUL in it, or begins with a "
               "blank; store it as binary, or with --encrypt");
    }
}

unsigned int parseEditableId(std::string_view text) {
    const auto id = parseAttributeId(text);
    if (!id) {
        refuse(text, "an attribute is a number or a name, as in label=TEXT or 0x8001=TEXT");
    }
    if (!isEditable(*id)) {
        refuse(text,
               "below 0x8000 you can only change the label; the others describe the "
               "record");
    }
    return *id;
}

}  // namespace fstore
