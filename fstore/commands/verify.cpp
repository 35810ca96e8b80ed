// fstore verify: whether certificates hold, and why not.
#include "lib/work/verify.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/base/time.h"

namespace fstore {
namespace {

struct VerifyOptions {
    std::vector<std::string> addresses;
    bool all = false;
    std::optional<std::string> time;
    VerifyRules rules;
};

// A time, or a day, which begins at midnight.
std::int64_t timeOf(const std::string& text) {
    auto time = parseTime(text);
    if (!time) {
        time = parseTime(text + "T00:00:00Z");
    }
    if (!time) {
        throw Failure(kUsage, fmt::format("\"{}\" is not a time: that is like 2030-01-31 or "
                                          "2030-01-31T23:59:59Z",
                                          text));
    }
    return *time;
}

void refuseOptions(const VerifyOptions& options) {
    if (options.all == !options.addresses.empty()) {
        throw Failure(kUsage, "name certificates by ADDRESS, or take all with --all");
    }
}

std::string goodText(const Verified& verified) {
    const std::string& root =
        verified.issuers.empty() ? verified.info.subject : verified.issuers.back().subject;
    return fmt::format("good until {}, by {}", verified.until ? printTime(*verified.until) : "?",
                       verified.issuers.empty() ? "itself" : root);
}

// Empty: it is good.
const std::string& flawOf(const Verified& verified) {
    return verified.why.empty() ? verified.doubt : verified.why;
}

void print(const Verification& verification, Output& output) {
    for (const Verified& verified : verification.certificates) {
        const std::string& flaw = flawOf(verified);
        output.sentence(verified.info.address.print(), flaw.empty() ? Style::kPlain : Style::kRed,
                        ": " + (flaw.empty() ? goodText(verified) : flaw));
    }
}

Json toJson(const Verified& verified) {
    Json issuers = Json::array();
    for (const RecordInfo& issuer : verified.issuers) {
        issuers.push_back(jsonText(issuer.address.print()));
    }
    Json json = toJson(verified.info);
    json["good"] = verified.doubt.empty() ? Json(verified.why.empty()) : Json();
    if (!flawOf(verified).empty()) {
        json["reason"] = jsonText(flawOf(verified));
    }
    if (verified.until && flawOf(verified).empty()) {  // what is not good is good until no time
        json["until"] = printTime(*verified.until);
    }
    json["issuers"] = std::move(issuers);
    return json;
}

Json toDocument(const Verification& verification) {
    Json records = Json::array();
    for (const Verified& verified : verification.certificates) {
        records.push_back(toJson(verified));
    }
    Json unread = Json::array();
    for (const Failure& failure : verification.leftOut) {
        unread.push_back({{"path", jsonText(failure.path())}, {"error", errorToJson(failure)}});
    }
    return {{"records", std::move(records)}, {"unread", std::move(unread)}};
}

Status statusOf(const Verification& verification) {
    const bool isGood = std::ranges::all_of(
        verification.certificates, [](const Verified& verified) { return verified.why.empty(); });
    if (!isGood) {
        return kFound;
    }
    return verification.leftOut.empty() ? kOk : kPartial;
}

Status runVerify(const VerifyOptions& options, Context& context) {
    refuseOptions(options);
    VerifyRules rules = options.rules;
    if (options.time) {
        rules.time = timeOf(*options.time);
    }
    const Verification verification = withSecrets(context.database, Access::kRead, [&] {
        return verifyCertificates(context.database, options.addresses, rules);
    });
    for (const Failure& failure : verification.leftOut) {
        context.output.warn(fmt::format("left out: {}", failure.what()));
    }
    print(verification, context.output);
    context.output.document(toDocument(verification));
    return statusOf(verification);
}

}  // namespace

void addVerify(Cli& cli) {
    using Purpose = VerifyRules::Purpose;
    const auto options = std::make_shared<VerifyOptions>();
    Command& command =
        cli.add("verify", "Verify certificates with their issuers and CRLs",
                [options](Context& context) { return runVerify(*options, context); });
    command
        .argument("ADDRESS", &options->addresses,
                  "As for show; a pattern stands for all certificates that match")
        .required = false;
    command.flag("--all", &options->all, "All certificates of the database");
    command.flag("--crl", &options->rules.needsCrls,
                 "Fail also without a CRL in force of each issuer");
    command.option("--at", "TIME", &options->time,
                   "At this time instead of now: 2030-01-31, 2030-01-31T23:59:59Z");
    command.option("--purpose", "PURPOSE",
                   Choice(&options->rules.purpose, {{"any", Purpose::kAny},
                                                    {"server", Purpose::kServer},
                                                    {"client", Purpose::kClient},
                                                    {"email", Purpose::kEmail},
                                                    {"timestamp", Purpose::kTimestamp}}),
                   "server, client, email, timestamp, or any");
}

}  // namespace fstore
