// Finding, and the lists that it and an import give.
#include "capi/lists.h"

#include <memory>
#include <optional>
#include <utility>

#include "capi/arguments.h"
#include "capi/db.h"
#include "lib/work/find.h"
#include "lib/work/select.h"

using capi::optionalText;
using fstore::FindRules;
using fstore::Listing;

namespace {

constexpr std::uint32_t kFindFlags = FILESTORE_FIND_EXPIRED | FILESTORE_FIND_WITH_KEY |
                                     FILESTORE_FIND_WITHOUT_KEY | FILESTORE_FIND_SECRETS;

FindRules rulesOf(const filestore_find_options& options) {
    capi::requireFlags(options.flags, kFindFlags);
    capi::require(options.order <= FILESTORE_BY_SUBJECT, "no such order");
    capi::require(options.attributes != nullptr || options.attribute_count == 0,
                  "attributes is null, and attribute_count is not 0");
    FindRules rules;
    rules.folder = optionalText(options.folder);
    rules.order = static_cast<FindRules::Order>(options.order);
    rules.secrets = (options.flags & FILESTORE_FIND_SECRETS) != 0;
    fstore::Filters& filters = rules.filters;
    filters.expired = (options.flags & FILESTORE_FIND_EXPIRED) != 0;
    filters.hasKey = (options.flags & FILESTORE_FIND_WITH_KEY) != 0;
    filters.noKey = (options.flags & FILESTORE_FIND_WITHOUT_KEY) != 0;
    filters.expiresWithin = optionalText(options.expires_within);
    filters.subject = optionalText(options.subject);
    filters.issuer = optionalText(options.issuer);
    filters.altName = optionalText(options.alt_name);
    filters.serial = optionalText(options.serial);
    filters.sha256 = optionalText(options.sha256);
    filters.algorithm = optionalText(options.algorithm);
    for (std::size_t i = 0; i < options.attribute_count; ++i) {
        filters.attributes.emplace_back(
            capi::requireText(options.attributes[i], "one of the attributes is null"));
    }
    return rules;
}

std::unique_ptr<filestore_list> listOf(Listing listing, bool secrets) {
    auto list = std::make_unique<filestore_list>();
    list->entries.reserve(listing.records.size());
    for (fstore::RecordInfo& info : listing.records) {
        const bool readable = secrets || !info.bodyEncrypted;
        list->entries.emplace_back(std::move(info), readable);
    }
    for (const auto& [address, failure] : listing.damaged) {
        list->add(failure.isDenied() ? FILESTORE_UNREAD : FILESTORE_DAMAGED, failure,
                  address.print());
    }
    for (const fstore::Failure& failure : listing.unread) {
        list->add(FILESTORE_UNREAD, failure, failure.path());
    }
    for (const fstore::Address& address : listing.undated) {
        list->problems.push_back({FILESTORE_UNDATED, FILESTORE_OK, address.print(), "", 0});
    }
    return list;
}

std::unique_ptr<filestore_list> listOf(const fstore::Meaning& meaning) {
    auto list = std::make_unique<filestore_list>();
    list->entries.reserve(meaning.records.size());
    for (const fstore::RecordInfo& info : meaning.records) {
        list->entries.emplace_back(info, !info.bodyEncrypted);
    }
    for (const fstore::Failure& failure : meaning.leftOut) {
        list->add(failure.isDenied() ? FILESTORE_UNREAD : FILESTORE_DAMAGED, failure,
                  failure.path());
    }
    return list;
}

filestore_status statusOf(const Listing& listing) {
    if (listing.hasDamage()) {
        return FILESTORE_FOUND;
    }
    return listing.isComplete() ? FILESTORE_OK : FILESTORE_PARTIAL;
}

}  // namespace

extern "C" {

filestore_status filestore_find(filestore_db* db, const filestore_find_options* options,
                                filestore_list** list, filestore_error* error) {
    return capi::operation(error, [&] {
        capi::require(list != nullptr, "list is null");
        *list = nullptr;
        const filestore_find_options own =
            capi::accepted(options, filestore_find_options(FILESTORE_FIND_OPTIONS_INIT));
        const FindRules rules = rulesOf(own);
        capi::Lease lease(capi::handleOf(db), own.callbacks);
        const fstore::Hold hold =
            lease.database().enter(fstore::Access::kRead, fstore::needFor(rules.secrets));
        Listing listing = findRecords(lease.database(), rules);
        const filestore_status status = statusOf(listing);
        *list = listOf(std::move(listing), rules.secrets).release();
        return status;
    });
}

filestore_status filestore_find_uri(filestore_db* db, const char* uri, uint32_t* kind,
                                    filestore_list** list, filestore_error* error) {
    return capi::operation(error, [&] {
        capi::require(list != nullptr, "list is null");
        *list = nullptr;
        const fstore::RecordUri wanted =
            fstore::parseUri(capi::requireText(uri, "the URI is null"));
        capi::Lease lease(capi::handleOf(db), nullptr);
        const fstore::Meaning meaning = withSecrets(lease.database(), fstore::Access::kRead, [&] {
            return meaningOf(lease.database(), wanted);
        });
        auto found = listOf(meaning);
        if (kind != nullptr) {
            *kind = wanted.selector    ? FILESTORE_URI_HOST
                    : meaning.isFolder ? FILESTORE_URI_FOLDER
                                       : FILESTORE_URI_RECORD;
        }
        *list = found.release();
        return meaning.leftOut.empty() ? FILESTORE_OK : FILESTORE_PARTIAL;
    });
}

size_t filestore_list_count(const filestore_list* list) {
    return list != nullptr ? list->entries.size() : 0;
}

filestore_status filestore_list_info(const filestore_list* list, size_t index,
                                     filestore_info* info) {
    if (list == nullptr) {
        return FILESTORE_INVALID;
    }
    return index < list->entries.size() ? list->entries[index].copyTo(info) : FILESTORE_NOT_FOUND;
}

size_t filestore_list_problem_count(const filestore_list* list) {
    return list != nullptr ? list->problems.size() : 0;
}

filestore_status filestore_list_problem(const filestore_list* list, size_t index,
                                        filestore_problem* problem) {
    if (list == nullptr) {
        return FILESTORE_INVALID;
    }
    if (index >= list->problems.size()) {
        return FILESTORE_NOT_FOUND;
    }
    const filestore_list::Problem& own = list->problems[index];
    filestore_problem values = FILESTORE_PROBLEM_INIT;
    values.kind = own.kind;
    values.status = own.status;
    values.path = own.path.c_str();
    values.message = own.message.c_str();
    values.line = own.line;
    return capi::fill(problem, values);
}

void filestore_list_free(filestore_list* list) {
    delete list;
}

}  // extern "C"
