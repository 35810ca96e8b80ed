// fstore ls: the records of the database or of one folder, with their expiry.
#include <algorithm>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "lib/base/time.h"
#include "lib/records/filter.h"
#include "lib/records/record_info.h"
#include "lib/work/find.h"
#include "lib/work/key_states.h"
#include "lib/work/successors.h"

namespace fstore {
namespace {

constexpr std::int64_t kDay = 24 * std::int64_t{60} * 60;
constexpr std::int64_t kSoon = 30 * kDay;

struct Options {
    FindRules rules;
    bool failOnMatch = false;
    bool all = false;  // also what is superseded, of filters by expiry

    bool asksForExpiry() const {
        return rules.filters.expired || rules.filters.expiresWithin.has_value();
    }
    // Nothing but everything.
    bool isPlain() const { return !rules.folder && Filter(rules.filters, now()).takesAll(); }
};

// How the records of the listing belong together.
class Belongings {
public:
    Belongings(const Options& options, Database& database) : showsDays_(options.asksForExpiry()) {
        // Who has more than this has other means; the listing itself takes no memory.
        constexpr std::size_t kMost = 10'000;
        if (options.asksForExpiry()) {
            successors_ = Successors::among(database,
                                            ownRecords(database, options.rules.secrets,
                                                       std::numeric_limits<std::size_t>::max()),
                                            time_);
        } else if (options.isPlain()) {
            own_ = ownRecords(database, options.rules.secrets, kMost);
            successors_ = Successors::among(database, own_, time_);
            keys_ = KeyStates(own_);
        }
    }

    const RecordInfo* successorOf(const RecordInfo& info) { return successors_.find(info); }

    Cell expiryCell(const RecordInfo& info) {
        const KeyState* const state = keys_.find(info);
        if (info.kind == Kind::kKey) {
            return state != nullptr ? keyCell(*state) : Cell{};
        }
        if (info.kind == Kind::kRequest) {
            return state != nullptr && isOpen(info, *state)
                       ? Cell{"open since " + dayOf(*info.imported)}
                       : Cell{};
        }
        if (info.notAfter && successorOf(info) != nullptr) {
            return {dayOf(*info.notAfter) + " superseded", Style::kDim};
        }
        return info.notAfter ? timeCell(*info.notAfter) : Cell{};
    }

    Json json(const RecordInfo& info) {
        Json json = toJson(info);
        if (showsDays_ && info.notAfter) {
            json["daysLeft"] = std::max<std::int64_t>(*info.notAfter - time_, 0) / kDay;
        }
        if (const RecordInfo* const successor = successorOf(info)) {
            json["supersededBy"] = jsonText(successor->address.print());
        }
        const KeyState* const state = keys_.find(info);
        if (state != nullptr && info.kind == Kind::kKey) {
            if (state->certificate != nullptr) {
                json["certificate"] = jsonText(state->certificate->address.print());
            }
            if (state->isOpen) {
                json["request"] = jsonText(state->request->address.print());
            }
        } else if (state != nullptr && info.kind == Kind::kRequest) {
            json["open"] = isOpen(info, *state);
        }
        return json;
    }

private:
    static std::string dayOf(std::int64_t time) {
        constexpr std::size_t kLength = 10;
        return printTime(time).substr(0, kLength);
    }

    static bool isOpen(const RecordInfo& request, const KeyState& state) {
        return state.isOpen && state.request->address == request.address;
    }

    Cell timeCell(std::int64_t notAfter) const {
        const std::string day = dayOf(notAfter);
        const std::int64_t left = notAfter - time_;
        if (left < 0) {
            return {day + " expired", Style::kRed};
        }
        if (left < kSoon || showsDays_) {
            return {fmt::format("{} in {} d", day, left / kDay),
                    left < kSoon ? Style::kYellow : Style::kPlain};
        }
        return {day};
    }

    // When its certificate ends, and since when one is asked for.
    Cell keyCell(const KeyState& state) const {
        Cell cell = state.certificate != nullptr ? timeCell(*state.certificate->notAfter) : Cell{};
        if (state.isOpen) {
            cell.text += fmt::format("{}requested {}", cell.text.empty() ? "" : ", ",
                                     dayOf(*state.request->imported));
        }
        return cell;
    }

    const bool showsDays_;
    const std::int64_t time_ = now();
    std::vector<RecordInfo> own_;
    Successors successors_;
    KeyStates keys_;
};

// The rows of the records come in their order, before those of the damaged ones.
constexpr char kRecords = '0';
constexpr char kDamaged = '1';

// What is printed of the records, row by row.
class Rows {
public:
    virtual ~Rows() = default;
    virtual void add(const RecordInfo& info) = 0;
    // `leftOut` records were left out because they are superseded.
    virtual void print(const Missed& missed, std::size_t leftOut, Output& output) = 0;
};

class TextRows : public Rows {
public:
    TextRows(FindRules::Order order, Belongings& belongings)
        : order_(order), belongings_(belongings) {}

    void add(const RecordInfo& info) override {
        const bool secret = info.bodyEncrypted;
        table_.add({{info.address.print()},
                    {nameOf(info.kind) + std::string(secret ? ", encrypted" : ""), Style::kDim},
                    belongings_.expiryCell(info),
                    {info.keyAlgorithm},
                    {info.subject},
                    {info.label}},
                   kRecords + orderKey(info, order_));
    }

    void print(const Missed& missed, std::size_t leftOut, Output& output) override {
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
        if (leftOut != 0) {
            output.note(fmt::format("superseded by newer ones and left out: {}; --all lists them",
                                    leftOut));
        }
    }

private:
    const FindRules::Order order_;
    Belongings& belongings_;
    Table table_{{{"ADDRESS", false},
                  {"KIND", false},
                  {"EXPIRES", false},
                  {"KEY", false},
                  {"SUBJECT", true},
                  {"LABEL", true}}};
};

class JsonRows : public Rows {
public:
    JsonRows(FindRules::Order order, Belongings& belongings)
        : order_(order), belongings_(belongings) {}

    void add(const RecordInfo& info) override {
        texts_.add(kRecords + orderKey(info, order_),
                   belongings_.json(info).print(Json::kLevelOfElements));
    }

    void print(const Missed& missed, std::size_t leftOut, Output& output) override {
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
        output.document({{"records", Json()},
                         {"undated", std::move(undated)},
                         {"superseded", leftOut},
                         {"unread", std::move(unread)}},
                        {"records", [this](const Json::TextUser& each) { texts_.visit(each); }});
    }

private:
    const FindRules::Order order_;
    Belongings& belongings_;
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
    Belongings belongings(options, context.database);
    std::unique_ptr<Rows> rows;
    if (context.output.json()) {
        rows = std::make_unique<JsonRows>(order, belongings);
    } else {
        rows = std::make_unique<TextRows>(order, belongings);
    }
    bool isListed = false;
    std::size_t leftOut = 0;
    const bool leavesOut = options.asksForExpiry() && !options.all;
    const Missed missed = visitFound(context.database, options.rules, [&](const RecordInfo& info) {
        if (leavesOut && belongings.successorOf(info) != nullptr) {
            ++leftOut;  // nobody waits for it
            return;
        }
        isListed = true;
        rows->add(info);
    });
    rows->print(missed, leftOut, context.output);
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
    command.flag("--all", &options->all,
                 "Of what expires, also what a newer certificate or CRL supersedes");
    command.flag("-u,--unlock", &options->rules.secrets,
                 "Take the password, and look at encrypted parts too");
    addFilters(command, options->rules.filters);
}

}  // namespace fstore
