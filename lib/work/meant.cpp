#include "lib/work/meant.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>
#include <fnmatch.h>

#include "lib/base/error.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/work/find.h"

namespace fstore {
namespace {

constexpr std::size_t kMostNamed = 10;

bool isBare(const AddressText& text) {
    return text.form == AddressText::Form::kBare;
}

template <class Test>
std::vector<Address> recordsThat(Test test) {
    std::vector<Address> found;
    Unread elsewhere;  // what cannot be read is not what is meant; ls and check tell about it
    visitRecords(
        [&](const Address& record) {
            if (test(record)) {
                found.push_back(record);
            }
            return true;
        },
        &elsewhere);
    return found;
}

std::vector<Address> recordsLabelled(Database& database, std::string_view label) {
    std::string pattern = "label=";
    for (const char c : label) {
        pattern += isPattern({&c, 1}) || c == '\\' ? std::string{'\\', c} : std::string{c};
    }
    FindRules rules;
    rules.filters.attributes.push_back(std::move(pattern));
    std::vector<Address> found;
    for (RecordInfo& info : findRecords(database, rules).records) {
        if (info.label == label) {
            found.push_back(std::move(info.address));
        }
    }
    return found;
}

std::vector<Address> recordsBeginning(const std::string& name) {
    return recordsThat([&](const Address& record) { return record.name.starts_with(name); });
}

}  // namespace

void failAmbiguous(std::string_view text, const std::vector<Address>& found) {
    std::string names;
    for (std::size_t i = 0; i < found.size() && i < kMostNamed; ++i) {
        names += (i == 0 ? "" : ", ") + found[i].print();
    }
    if (found.size() > kMostNamed) {
        names += fmt::format(" or one of {} others", found.size() - kMostNamed);
    }
    throw Failure(kInvalid, fmt::format("{} is ambiguous; it may be {}", text, names),
                  std::string(text));
}

bool isPattern(std::string_view text) {
    return text.find_first_of("*?[") != std::string_view::npos;
}

void refusePattern(const Address& place) {
    const std::string text = place.print();
    if (!isPattern(text) || Record::isThere(place)) {
        return;
    }
    const std::vector<Address> matching = recordsMatching(text);
    if (!matching.empty()) {
        const std::size_t more = matching.size() - 1;
        throw Failure(
            kInvalid,
            fmt::format("{} is a pattern that matches {}{}", text, matching.front().print(),
                        more == 0 ? "" : fmt::format(" and {} more", more)),
            Advice{
                "name the record that you mean, or choose a name for a new one that matches none"},
            text);
    }
}

std::vector<Address> recordsMatching(std::string_view pattern) {
    const AddressText wanted = parseAddress(pattern);
    const std::string compared = isBare(wanted) ? wanted.place.name : wanted.place.print();
    return recordsThat([&](const Address& record) {
        const std::string text = isBare(wanted) ? record.name : record.print();
        return fnmatch(compared.c_str(), text.c_str(), FNM_PATHNAME) == 0;
    });
}

std::optional<Address> meantRecord(Database& database, std::string_view text) {
    const AddressText wanted = parseAddress(text);
    std::vector<Address> found;
    if (!isBare(wanted)) {
        // Whoever names a place means no other one.
        found = wanted.form == AddressText::Form::kPlace && isPattern(text) ? recordsMatching(text)
                                                                            : found;
    } else {
        found = recordsLabelled(database, text);
        if (found.empty()) {
            found = isPattern(text) ? recordsMatching(text) : recordsBeginning(wanted.place.name);
        }
    }
    if (found.size() > 1) {
        failAmbiguous(text, found);
    }
    return found.empty() ? std::nullopt : std::optional(found[0]);
}

std::vector<std::string> withoutPatterns(const std::vector<std::string>& texts) {
    std::vector<std::string> found;
    for (const std::string& text : texts) {
        if (!isPattern(text)) {
            found.push_back(text);
            continue;
        }
        const AddressText wanted = parseAddress(text);
        if (std::ranges::any_of(placesOf(wanted), Record::isThere)) {
            found.push_back(text);
            continue;
        }
        const std::string_view folder = std::string_view(text).substr(0, text.rfind('/') + 1);
        if (isBare(wanted) || isPattern(folder)) {
            const std::string_view name = std::string_view(text).substr(folder.size());
            throw Failure(kInvalid,
                          fmt::format("{} would match in several folders, also keys; name the "
                                      "folder, as in \"settings/{}\"",
                                      text, name),
                          text);
        }
        const std::vector<Address> matching = recordsMatching(text);
        if (matching.empty()) {
            throw NoRecord(text);
        }
        for (const Address& record : matching) {
            found.push_back(record.print());
        }
    }
    return found;
}

}  // namespace fstore
