// fstore ls: the records of the database or of one folder, with their expiry.
#include <algorithm>
#include <memory>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/base/time.h"
#include "lib/records/filter.h"
#include "lib/records/record_info.h"
#include "lib/work/find.h"

namespace fstore {
namespace {

constexpr std::int64_t kDay = 24 * std::int64_t{60} * 60;
constexpr std::int64_t kSoon = 30 * kDay;

struct Options {
    FindRules rules;
    bool failOnMatch = false;
};

Cell expiryCell(const RecordInfo& info, std::int64_t at) {
    if (!info.notAfter) {
        return {};
    }
    const std::string day = printTime(*info.notAfter).substr(0, 10);
    const std::int64_t left = *info.notAfter - at;
    if (left < 0) {
        return {day + " expired", Style::kRed};
    }
    if (left < kSoon) {
        return {fmt::format("{} in {} d", day, left / kDay), Style::kYellow};
    }
    return {day};
}

void print(const Listing& listing, Output& output) {
    Table table({{"ADDRESS", false},
                 {"KIND", false},
                 {"EXPIRES", false},
                 {"KEY", false},
                 {"SUBJECT", true},
                 {"LABEL", true}});
    const std::int64_t at = now();
    for (const RecordInfo& info : listing.records) {
        const bool secret = info.bodyEncrypted;
        table.add({{info.address.print()},
                   {nameOf(info.kind) + std::string(secret ? ", encrypted" : ""), Style::kDim},
                   expiryCell(info, at),
                   {info.keyAlgorithm},
                   {info.subject},
                   {info.label}});
    }
    for (const auto& [address, failure] : listing.damaged) {
        const Cell what =
            failure.isDenied() ? Cell{"unreadable", Style::kYellow} : Cell{"damaged", Style::kRed};
        table.add({{address.print()}, what, {}, {}, {}, {}});
    }
    if (!table.empty()) {
        output.table(table);
    }
    for (const auto& [address, failure] : listing.damaged) {
        output.warn(failure.what());
    }
    for (const Failure& failure : listing.unread) {
        output.warn(failure.what());
    }
}

Json toDocument(const Listing& listing) {
    Json records = Json::array();
    for (const RecordInfo& info : listing.records) {
        records.push_back(toJson(info));
    }
    for (const auto& [address, failure] : listing.damaged) {
        records.push_back(failureToJson(address.print(), failure));
    }
    Json undated = Json::array();
    for (const Address& address : listing.undated) {
        undated.push_back(jsonText(address.print()));
    }
    Json unread = Json::array();
    for (const Failure& failure : listing.unread) {
        unread.push_back({{"path", jsonText(failure.path())}, {"error", errorToJson(failure)}});
    }
    return {{"records", std::move(records)},
            {"undated", std::move(undated)},
            {"unread", std::move(unread)}};
}

// An alarm that could not look rings.
Status statusOf(const Listing& listing, bool failOnMatch) {
    const bool isEmpty = listing.records.empty() && listing.undated.empty() && listing.isComplete();
    if ((failOnMatch && !isEmpty) || listing.hasDamage()) {
        return kFound;
    }
    return listing.isComplete() ? kOk : kPartial;
}

Status run(const Options& options, Context& context) {
    (void)Filter(options.rules.filters,
                 now());  // what cannot be read is told before anything is asked
    const Hold hold = context.database.enter(Access::kRead, needFor(options.rules.secrets));
    const Listing listing = findRecords(context.database, options.rules);
    if (context.output.json()) {
        context.output.document(toDocument(listing));
    } else {
        print(listing, context.output);
    }
    if (!listing.undated.empty()) {
        context.output.warn(fmt::format(
            "when {} of the records expire could not be read{}", listing.undated.size(),
            context.database.isOpen() ? "; see `fstore check --deep`"
                                      : ", since it is encrypted: add --unlock, and the password"));
    }
    return statusOf(listing, options.failOnMatch);
}

}  // namespace

void addLs(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command = cli.add("ls", "List records and when they expire",
                               [options](Context& context) { return run(*options, context); });
    command.argument("FOLDER", &options->rules.folder, "This folder and its subfolders only")
        .required = false;
    command.option("--sort", "ORDER",
                   Choice(&options->rules.order, {{"name", FindRules::Order::kName},
                                                  {"expiry", FindRules::Order::kExpiry},
                                                  {"subject", FindRules::Order::kSubject}}),
                   "By name, expiry or subject");
    command.flag("--fail", &options->failOnMatch, "Exit with 3 if a record is listed, for cron");
    command.flag("-u,--unlock", &options->rules.secrets,
                 "Take the password, and look at encrypted parts too");
    addFilters(command, options->rules.filters);
}

}  // namespace fstore
