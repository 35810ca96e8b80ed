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

// The rows of the records come in their order, before those of the damaged ones.
constexpr char kRecords = '0';
constexpr char kDamaged = '1';

// What is printed of the records, row by row.
class Rows {
public:
    virtual ~Rows() = default;
    virtual void add(const RecordInfo& info) = 0;
    virtual void print(const Missed& missed, Output& output) = 0;
};

class TextRows : public Rows {
public:
    explicit TextRows(FindRules::Order order) : order_(order) {}

    void add(const RecordInfo& info) override {
        const bool secret = info.bodyEncrypted;
        table_.add({{info.address.print()},
                    {nameOf(info.kind) + std::string(secret ? ", encrypted" : ""), Style::kDim},
                    expiryCell(info, at_),
                    {info.keyAlgorithm},
                    {info.subject},
                    {info.label}},
                   kRecords + orderKey(info, order_));
    }

    void print(const Missed& missed, Output& output) override {
        for (const auto& [address, failure] : missed.damaged) {
            const Cell what = failure.isDenied() ? Cell{"unreadable", Style::kYellow}
                                                 : Cell{"damaged", Style::kRed};
            table_.add({{address.print()}, what, {}, {}, {}, {}}, std::string(1, kDamaged));
        }
        if (!table_.empty()) {
            output.table(table_);
        }
        for (const auto& [address, failure] : missed.damaged) {
            output.warn(failure.what());
        }
        for (const Failure& failure : missed.unread) {
            output.warn(failure.what());
        }
    }

private:
    const FindRules::Order order_;
    const std::int64_t at_ = now();
    Table table_{{{"ADDRESS", false},
                  {"KIND", false},
                  {"EXPIRES", false},
                  {"KEY", false},
                  {"SUBJECT", true},
                  {"LABEL", true}}};
};

class JsonRows : public Rows {
public:
    explicit JsonRows(FindRules::Order order) : order_(order) {}

    void add(const RecordInfo& info) override {
        texts_.add(kRecords + orderKey(info, order_), toJson(info).print(Json::kLevelOfElements));
    }

    void print(const Missed& missed, Output& output) override {
        for (const auto& [address, failure] : missed.damaged) {
            texts_.add(std::string(1, kDamaged),
                       failureToJson(address.print(), failure).print(Json::kLevelOfElements));
        }
        Json undated = Json::array();
        for (const Address& address : missed.undated) {
            undated.push_back(jsonText(address.print()));
        }
        Json unread = Json::array();
        for (const Failure& failure : missed.unread) {
            unread.push_back({{"path", jsonText(failure.path())}, {"error", errorToJson(failure)}});
        }
        output.document(
            {{"records", Json()}, {"undated", std::move(undated)}, {"unread", std::move(unread)}},
            {"records", [this](const Json::TextUser& each) { texts_.visit(each); }});
    }

private:
    const FindRules::Order order_;
    SortedTexts texts_;
};

// An alarm that could not look rings.
Status statusOf(bool isListed, const Missed& missed, bool failOnMatch) {
    const bool isEmpty = !isListed && missed.undated.empty() && missed.isComplete();
    if ((failOnMatch && !isEmpty) || missed.hasDamage()) {
        return kFound;
    }
    return missed.isComplete() ? kOk : kPartial;
}

Status run(const Options& options, Context& context) {
    (void)Filter(options.rules.filters,
                 now());  // what cannot be read is told before anything is asked
    const Hold hold = context.database.enter(Access::kRead, needFor(options.rules.secrets));
    const FindRules::Order order = options.rules.order;
    std::unique_ptr<Rows> rows;
    if (context.output.json()) {
        rows = std::make_unique<JsonRows>(order);
    } else {
        rows = std::make_unique<TextRows>(order);
    }
    bool isListed = false;
    const Missed missed = visitFound(context.database, options.rules, [&](const RecordInfo& info) {
        isListed = true;
        rows->add(info);
    });
    rows->print(missed, context.output);
    if (!missed.undated.empty()) {
        context.output.warn(fmt::format(
            "when {} of the records expire could not be read{}", missed.undated.size(),
            context.database.isOpen() ? "; see `fstore check --deep`"
                                      : ", since it is encrypted: add --unlock, and the password"));
    }
    return statusOf(isListed, missed, options.failOnMatch);
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
