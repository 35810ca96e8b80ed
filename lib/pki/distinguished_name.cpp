#include "lib/pki/distinguished_name.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <openssl/asn1.h>

#include "lib/base/digits.h"
#include "lib/base/error.h"
#include "lib/base/printable.h"
#include "lib/pki/made.h"
#include "lib/pki/text.h"

namespace fstore {
namespace {

using AnyType = ossl::Owner<ASN1_TYPE, ASN1_TYPE_free>;

struct SubjectEntry {
    std::string type, value;
    bool isDer = false;
    bool beginsPart = false;  // is not added to the part in front of it by "+"
};

[[noreturn]] void refuseSubject(const std::string& why) {
    throw Failure(kInvalid,
                  fmt::format("the subject {}; it is like CN=www.example.com,O=Example", why));
}

class SubjectReader {
public:
    explicit SubjectReader(std::string_view text) : rest_(text) {}

    // The parts in the order of the text.
    std::vector<SubjectEntry> read() {
        std::vector<SubjectEntry> entries;
        bool beginsPart = true;
        while (true) {
            SubjectEntry& entry = entries.emplace_back();
            entry.beginsPart = beginsPart;
            entry.type = readType();
            readValue(entry);
            if (rest_.empty()) {
                return entries;
            }
            beginsPart = rest_.front() == ',';
            rest_.remove_prefix(1);
        }
    }

private:
    std::string readType() {
        const std::size_t equals = rest_.find('=');
        std::string_view type = rest_.substr(0, equals);
        if (equals == std::string_view::npos ||
            type.find_first_of(",+\\") != std::string_view::npos) {
            refuseSubject(fmt::format("has no \"=\" in \"{}\"", printable(clipped(type, kShown))));
        }
        rest_.remove_prefix(equals + 1);
        type.remove_prefix(std::min(type.find_first_not_of(' '), type.size()));
        return std::string(type.substr(0, type.find_last_not_of(' ') + 1));
    }

    // Up to the "," or "+" behind it. Blanks around it say nothing unless they are escaped.
    void readValue(SubjectEntry& entry) {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size()));
        if (rest_.starts_with('"')) {
            refuseSubject(
                "has a value that begins with a quote, which needs a backslash before it");
        }
        entry.isDer = rest_.starts_with('#');
        std::string& value = entry.value;
        std::size_t kept = 0;  // up to the last character that is no blank
        while (!rest_.empty() && rest_.front() != ',' && rest_.front() != '+') {
            const bool isEscaped = rest_.front() == '\\';
            value += readCharacter();
            kept = isEscaped || value.back() != ' ' ? value.size() : kept;
        }
        value.resize(kept);
        if (entry.isDer) {
            const auto bytes = fromHex(std::string_view(value).substr(1));
            if (!bytes) {
                refuseSubject(
                    "has a value that begins with #, which needs a backslash before it unless the "
                    "hexadecimal digits of DER follow");
            }
            value.assign(bytes->begin(), bytes->end());
        }
    }

    char readCharacter() {
        constexpr std::string_view kSpecial = ",+\"\\<>;=# ";
        const char first = rest_.front();
        rest_.remove_prefix(1);
        if (first != '\\') {
            return first;
        }
        if (!rest_.empty() && kSpecial.find(rest_.front()) != std::string_view::npos) {
            const char escaped = rest_.front();
            rest_.remove_prefix(1);
            return escaped;
        }
        const auto byte = fromHex(rest_.substr(0, 2));
        if (!byte || byte->size() != 1) {
            refuseSubject("has a backslash before what needs none");
        }
        rest_.remove_prefix(2);
        return static_cast<char>(byte->front());
    }

    static constexpr std::size_t kShown = 40;
    std::string_view rest_;
};

// Whether it is in one of the places where parts of names are defined, though OpenSSL has no rules
// for its values. Of all others, a mistyped name could be the name of anything.
bool isOfNames(const ASN1_OBJECT* type) {
    constexpr std::array<std::string_view, 4> kPlaces = {
        "2.5.4.", "0.9.2342.19200300.100.1.", "1.2.840.113549.1.9.", "1.3.6.1.4.1.311.60.2.1."};
    const std::string text = identifierText(type);
    return std::ranges::any_of(kPlaces,
                               [&](std::string_view place) { return text.starts_with(place); });
}

// Of "CN", "cn", "commonName" and "2.5.4.3"; null for what is no part of names.
const ASN1_OBJECT* attributeType(const std::string& text, ossl::Identifier& owner) {
    std::string capitals = text;
    std::ranges::transform(capitals, capitals.begin(), [](char c) {
        return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    for (const std::string& name : {text, capitals}) {
        owner.reset(OBJ_txt2obj(name.c_str(), 0));
        const int known = owner != nullptr ? OBJ_obj2nid(owner.get()) : NID_undef;
        const bool isNumbers = !name.empty() && name[0] >= '0' && name[0] <= '9';
        if (owner != nullptr &&
            (isNumbers || ASN1_STRING_TABLE_get(known) != nullptr || isOfNames(owner.get()))) {
            return owner.get();
        }
    }
    return nullptr;
}

void requireText(const SubjectEntry& entry) {
    const auto isControl = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < 0x20 || byte == 0x7F;
    };
    if (entry.value.empty()) {
        refuseSubject(fmt::format("has no value for {}", printable(entry.type)));
    }
    if (std::ranges::any_of(entry.value, isControl)) {
        refuseSubject(
            fmt::format("has a control character in the value of {}", printable(entry.type)));
    }
    if (!isUtf8(entry.value)) {
        refuseSubject(fmt::format("has a value of {} that is not UTF-8", printable(entry.type)));
    }
}

[[noreturn]] void refuseValue(const SubjectEntry& entry) {
    const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
    refuseSubject(fmt::format("has a value that {} cannot have: {}", printable(entry.type),
                              reason != nullptr ? reason : "OpenSSL refuses it"));
}

struct DerString {
    int type;
    std::string bytes, text;  // as they are in it, and in UTF-8
};

DerString stringIn(const SubjectEntry& entry) {
    constexpr unsigned long kStrings =
        B_ASN1_DIRECTORYSTRING | B_ASN1_IA5STRING | B_ASN1_NUMERICSTRING | B_ASN1_VISIBLESTRING;
    const auto* at = reinterpret_cast<const unsigned char*>(entry.value.data());
    const auto* const end = at + entry.value.size();
    const AnyType any(d2i_ASN1_TYPE(nullptr, &at, static_cast<long>(entry.value.size())));
    unsigned char* text = nullptr;
    const bool isString = any != nullptr && at == end && (ASN1_tag2bit(any->type) & kStrings) != 0;
    const int length = isString ? ASN1_STRING_to_UTF8(&text, any->value.asn1_string) : -1;
    const ossl::Text owner(reinterpret_cast<char*>(text));
    if (length < 0) {
        refuseSubject(
            fmt::format("has a value of {} that is not a string in DER", printable(entry.type)));
    }
    const ASN1_STRING* const string = any->value.asn1_string;
    return {any->type,
            {reinterpret_cast<const char*>(ASN1_STRING_get0_data(string)),
             static_cast<std::size_t>(ASN1_STRING_length(string))},
            {owner.get(), static_cast<std::size_t>(length)}};
}

// OpenSSL looks at the length and the characters of text, but at nothing that has its form already.
void requireFit(const SubjectEntry& entry, const ASN1_OBJECT* type, const DerString& string) {
    const auto* const text = reinterpret_cast<const unsigned char*>(string.text.data());
    const int size = static_cast<int>(string.text.size());
    const int known = OBJ_obj2nid(type);
    const ossl::String allowed(ASN1_STRING_set_by_NID(nullptr, text, size, MBSTRING_UTF8, known));
    if (allowed == nullptr) {
        refuseValue(entry);
    }
    const ASN1_STRING_TABLE* const rules = ASN1_STRING_TABLE_get(known);
    const unsigned long form = ASN1_tag2bit(string.type);
    ASN1_STRING* copy = nullptr;
    const bool fits = (rules == nullptr || (rules->mask & form) != 0) &&
                      ASN1_mbstring_copy(&copy, text, size, MBSTRING_UTF8, form) > 0;
    const ossl::String owner(copy);
    if (!fits) {
        refuseSubject(fmt::format("has a value of {} in a string of another kind than it can have",
                                  printable(entry.type)));
    }
}

void addEntry(X509_NAME* name, SubjectEntry entry, bool beginsPart) {
    ossl::Identifier owner;
    const ASN1_OBJECT* const type = attributeType(entry.type, owner);
    if (type == nullptr) {
        refuseSubject(
            fmt::format("has \"{}\", which is not a part of names", printable(entry.type)));
    }
    int form = MBSTRING_UTF8;
    if (entry.isDer) {
        const DerString string = stringIn(entry);
        requireText({entry.type, string.text});
        requireFit(entry, type, string);
        form = string.type;
        entry.value = string.bytes;
    } else {
        requireText(entry);
    }
    constexpr int kAtEnd = -1, kNewPart = 0, kSamePart = -1;
    if (X509_NAME_add_entry_by_OBJ(
            name, type, form, reinterpret_cast<const unsigned char*>(entry.value.data()),
            static_cast<int>(entry.value.size()), kAtEnd, beginsPart ? kNewPart : kSamePart) != 1) {
        refuseValue(entry);
    }
}

}  // namespace

ossl::Name distinguishedName(std::string_view text) {
    const ossl::QuietErrors quiet;
    ossl::Name name = made(ossl::Name(X509_NAME_new()));
    if (text.empty()) {
        return name;
    }
    // DER has the parts in the other order; the values of one stay together.
    bool beginsPart = true;
    const std::vector<SubjectEntry> entries = SubjectReader(text).read();
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
        addEntry(name.get(), *entry, beginsPart);
        beginsPart = entry->beginsPart;
    }
    return name;
}

}  // namespace fstore
