// fstore ls: the records of the database or of one folder, with their expiry.
#include <algorithm>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/record_json.h"
#include "fstore/commands/record_text.h"
#include "fstore/terminal/calendar.h"
#include "fstore/terminal/csv.h"
#include "lib/base/digits.h"
#include "lib/base/printable.h"
#include "lib/base/sha256.h"
#include "lib/base/time.h"
#include "lib/records/filter.h"
#include "lib/records/record_info.h"
#include "lib/work/find.h"
#include "lib/work/key_states.h"
#include "lib/work/successors.h"

namespace fstore {
namespace {

constexpr std::int64_t kSoon = 30 * kDay;

// Later than any time that a certificate can have.
constexpr const char* kEver = "8000y";

struct LsOptions {
    FindRules rules;
    bool failOnMatch = false;
    bool all = false;  // also what is superseded, of filters by expiry
    bool csv = false;
    bool calendar = false;

    bool asksForExpiry() const {
        return rules.filters.expired || rules.filters.expiresWithin.has_value();
    }
    // Nothing but everything.
    bool isPlain() const { return !rules.folder && Filter(rules.filters, now()).takesAll(); }
};

// How the records of the listing belong together.
class Belongings {
public:
    Belongings(const LsOptions& options, Database& database) : showsDays_(options.asksForExpiry()) {
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
                       ? wholeCell("open since " + dayOf(*info.imported))
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
    static bool isOpen(const RecordInfo& request, const KeyState& state) {
        return state.isOpen && state.request->address == request.address;
    }

    static Cell wholeCell(const std::string& text) {
        return {text, Style::kPlain, columnsOf(text)};
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

const char* stateOf(const Failure& failure) {
    if (failure.isDenied()) {
        return "unreadable";
    }
    return failure.status() == kMissing ? "body missing" : "damaged";
}

// Beside rows that people read.
void report(const Missed& missed, std::size_t leftOut, Output& output) {
    for (const auto& [address, failure] : missed.damaged) {
        output.warn(failure.what());
    }
    for (const Failure& failure : missed.unread) {
        output.warn(failure.what());
    }
    if (leftOut != 0) {
        output.summary(
            fmt::format("superseded by newer ones and left out: {}; --all lists them", leftOut));
    }
}

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
            table_.add({{address.print()},
                        {stateOf(failure), failure.isDenied() ? Style::kYellow : Style::kRed},
                        {},
                        {},
                        {},
                        {}},
                       std::string(1, kDamaged));
        }
        if (!table_.empty()) {
            output.table(table_);
        }
        report(missed, leftOut, output);
    }

private:
    const FindRules::Order order_;
    Belongings& belongings_;
    // At 40 columns there is room for the first three.
    Table table_{{{.title = "ADDRESS", .weight = 4, .least = 9, .cut = Table::Cut::kInside},
                  {.title = "KIND", .weight = 2},
                  {.title = "EXPIRES", .weight = 4, .least = 18, .cut = Table::Cut::kWords},
                  {.title = "KEY"},
                  {.title = "SUBJECT", .weight = 2, .least = 8},
                  {.title = "LABEL"}}};
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

class CsvRows : public Rows {
public:
    CsvRows(FindRules::Order order, Belongings& belongings)
        : order_(order), belongings_(belongings) {}

    void add(const RecordInfo& info) override {
        const RecordInfo* const successor = belongings_.successorOf(info);
        lines_.add(
            kRecords + orderKey(info, order_),
            csvLine({info.address.print(), nameOf(info.kind), info.bodyEncrypted ? "yes" : "no",
                     info.notBefore ? printTime(*info.notBefore) : "",
                     info.notAfter ? printTime(*info.notAfter) : "", info.keyAlgorithm,
                     info.subject, fmt::format("{}", fmt::join(info.altNames, " ")), info.issuer,
                     info.serial, info.sha256, info.label,
                     successor != nullptr ? successor->address.print() : ""}));
    }

    void print(const Missed& missed, std::size_t leftOut, Output& output) override {
        output.raw(csvLine({"address", "kind", "encrypted", "notBefore", "notAfter", "keyAlgorithm",
                            "subject", "altNames", "issuer", "serial", "sha256", "label",
                            "supersededBy"}));
        for (const auto& [address, failure] : missed.damaged) {
            lines_.add(std::string(1, kDamaged), csvLine({address.print(), stateOf(failure), "", "",
                                                          "", "", "", "", "", "", "", "", ""}));
        }
        lines_.visit([&](std::string_view line) { output.raw(line); });
        report(missed, leftOut, output);
    }

private:
    const FindRules::Order order_;
    Belongings& belongings_;
    SortedTexts lines_;
};

class CalendarRows : public Rows {
public:
    explicit CalendarRows(FindRules::Order order) : order_(order) {}

    void add(const RecordInfo& info) override {
        const std::string id = idOf(info);
        if (!info.notAfter || !ids_.insert(id).second) {
            return;
        }
        CalendarEvent event{id, info.imported.value_or(info.notBefore.value_or(0)), *info.notAfter,
                            fmt::format("{} {} expires", nameOf(info.kind),
                                        info.kind == Kind::kCrl ? info.issuer : titleOf(info)),
                            fmt::format("{}\n{}", info.address.print(), info.subject)};
        if (!info.altNames.empty()) {
            event.description += fmt::format("\n{}", fmt::join(info.altNames, " "));
        }
        if (!info.issuer.empty()) {
            event.description += "\nissued by " + info.issuer;
        }
        events_.add(orderKey(info, order_), calendarEvent(event));
    }

    void print(const Missed& missed, std::size_t leftOut, Output& output) override {
        output.raw(kCalendarBegin);
        events_.visit([&](std::string_view event) { output.raw(event); });
        output.raw(kCalendarEnd);
        report(missed, leftOut, output);
    }

private:
    // The same as long as the object is the same, wherever it is put: a calendar that takes the
    // events again has each once.
    static std::string idOf(const RecordInfo& info) {
        if (!info.sha256.empty()) {
            return info.sha256;
        }
        Sha256 digest;
        digest.add(info.address.print());
        return toHex(digest.finish());
    }

    const FindRules::Order order_;
    std::set<std::string> ids_;  // one object may be in several records
    SortedTexts events_;
};

std::unique_ptr<Rows> rowsFor(const LsOptions& options, Belongings& belongings,
                              const Output& output) {
    const FindRules::Order order = options.rules.order;
    if (output.json()) {
        return std::make_unique<JsonRows>(order, belongings);
    }
    if (options.csv) {
        return std::make_unique<CsvRows>(order, belongings);
    }
    if (options.calendar) {
        return std::make_unique<CalendarRows>(order);
    }
    return std::make_unique<TextRows>(order, belongings);
}

// An alarm that could not look rings.
Status statusOf(bool isListed, const Missed& missed, bool failOnMatch) {
    const bool isEmpty = !isListed && missed.undated.empty() && missed.isComplete();
    if ((failOnMatch && !isEmpty) || missed.hasDamage()) {
        return kFound;
    }
    return missed.isComplete() ? kOk : kPartial;
}

Status runLs(LsOptions options, Context& context) {
    if (context.output.json() && (options.csv || options.calendar)) {
        throw Failure(kUsage, "--json, --csv and --ics exclude each other: give one of them");
    }
    if (options.calendar && !options.asksForExpiry()) {
        options.rules.filters.expiresWithin = kEver;  // it says what it cannot date, too
    }
    (void)Filter(options.rules.filters,
                 now());  // what cannot be read is told before anything is asked
    const Hold hold = context.database.enter(Access::kRead, needFor(options.rules.secrets));
    Belongings belongings(options, context.database);
    const std::unique_ptr<Rows> rows = rowsFor(options, belongings, context.output);
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
    const auto options = std::make_shared<LsOptions>();
    Command& command = cli.add("ls", "List records and when they expire",
                               [options](Context& context) { return runLs(*options, context); });
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
    command.flag("--csv", &options->csv, "As comma-separated values, for spreadsheets");
    command.flag("--ics", &options->calendar, "As a calendar of what expires when").excludes = {
        "--csv"};
    command.flag("-u,--unlock", &options->rules.secrets,
                 "Take the password, and look at encrypted parts too");
    addFilters(command, options->rules.filters);
}

}  // namespace fstore
