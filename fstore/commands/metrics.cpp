// fstore metrics: what Prometheus asks of a database.
#include <algorithm>
#include <array>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/record_json.h"
#include "fstore/commands/record_text.h"
#include "lib/base/files.h"
#include "lib/base/printable.h"
#include "lib/base/time.h"
#include "lib/database/state_file.h"
#include "lib/work/find.h"
#include "lib/work/successors.h"
#include "os/files.h"

namespace fstore {
namespace {

struct MetricsOptions {
    std::string file{kStandardStream};
    bool all = false;
    bool secrets = false;
    bool force = false;
};

constexpr std::string_view kHelp = "# HELP fstore_", kType = "# TYPE fstore_", kValue = "fstore_";

// Whether nothing is lost with what has the name: all of it is from here. Where it is no file at
// all, it is looked at when it is opened to be written.
bool isOurs(const std::string& file) {
    constexpr std::uint64_t kMost = 1 << 26;
    if (!isA(os::EntryType::kFile, file)) {
        return true;
    }
    const SecretBytes bytes = InputFile(openRegular(file).file, file).readAll(kMost);
    std::string_view text = asText(bytes);
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (!std::ranges::any_of(std::array{kHelp, kType, kValue},
                                 [&](std::string_view head) { return line.starts_with(head); })) {
            return false;
        }
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return true;
}

// The value of a label, as the text format quotes it.
std::string labelValue(std::string_view text) {
    std::string value = "\"";
    for (const char c : printable(text)) {
        if (c == '\\' || c == '"') {
            value += '\\';
        }
        value += c;
    }
    return value + '"';
}

class Metrics {
public:
    // All values of a metric follow its begin().
    void begin(std::string_view name, std::string_view help) {
        name_ = name;
        text_ += fmt::format("{}{} {}\n{}{} gauge\n", kHelp, name, help, kType, name);
    }
    void add(std::int64_t value, const std::string& labels = {}) {
        text_ += fmt::format("{}{}{} {}\n", kValue, name_,
                             labels.empty() ? "" : fmt::format("{{{}}}", labels), value);
    }
    // What is not known has no value, and so rings as absent().
    void addKnown(const std::optional<std::int64_t>& value) {
        if (value) {
            add(*value);
        }
    }
    const std::string& text() const noexcept { return text_; }

private:
    std::string name_, text_;
};

struct Counts {
    std::map<Kind, std::int64_t> records;
    std::int64_t superseded = 0;
};

void addExpiry(const RecordInfo& info, Metrics& metrics) {
    metrics.add(*info.notAfter,
                fmt::format("address={},kind={},subject={}", labelValue(info.address.print()),
                            labelValue(nameOf(info.kind)),
                            labelValue(info.kind == Kind::kCrl ? info.issuer : titleOf(info))));
}

// Whether somebody waits for its end.
bool isWatched(const RecordInfo& info, const MetricsOptions& options,
               const std::set<std::string>& keys) {
    return info.notAfter &&
           (options.all || info.kind == Kind::kCrl || info.isCa || keys.count(info.keySha256) != 0);
}

// An alarm that waits for its end would never ring. Of what is encrypted it is known with -u alone.
bool isUndated(const RecordInfo& info, const MetricsOptions& options) {
    return (info.kind == Kind::kCertificate || info.kind == Kind::kCrl) && !info.notAfter &&
           (options.secrets || !info.bodyEncrypted);
}

Missed addRecords(const MetricsOptions& options, Database& database, Metrics& metrics) {
    const std::vector<RecordInfo> own =
        ownRecords(database, options.secrets, std::numeric_limits<std::size_t>::max());
    Successors successors = Successors::among(database, own, now());
    std::set<std::string> keys;
    for (const RecordInfo& info : own) {
        if (info.kind == Kind::kKey) {
            keys.insert(info.keySha256);
        }
    }
    Counts counts;
    metrics.begin("not_after_timestamp_seconds",
                  "When a certificate or CRL ends that nothing newer supersedes.");
    std::vector<Address> undated;
    FindRules rules;
    rules.secrets = options.secrets;
    Missed missed = visitFound(database, rules, [&](const RecordInfo& info) {
        ++counts.records[info.kind];
        if (isUndated(info, options)) {
            undated.push_back(info.address);
        }
        if (!isWatched(info, options, keys)) {
            return;
        }
        if (successors.find(info) != nullptr) {
            ++counts.superseded;
        } else {
            addExpiry(info, metrics);
        }
    });
    metrics.begin("records", "Records by kind.");
    for (const auto& [kind, count] : counts.records) {
        metrics.add(count, fmt::format("kind={}", labelValue(nameOf(kind))));
    }
    metrics.begin("superseded_records", "Certificates and CRLs that newer ones supersede.");
    metrics.add(counts.superseded);
    metrics.begin("unread_records", "Records and folders that could not be read.");
    metrics.add(
        static_cast<std::int64_t>(missed.damaged.size() + missed.unread.size() + undated.size()));
    missed.undated = std::move(undated);
    return missed;
}

void addState(const DatabaseState& state, Metrics& metrics) {
    metrics.begin("last_backup_timestamp_seconds", "When fstore backup last succeeded.");
    metrics.addKnown(state.backup);
    metrics.begin("last_check_timestamp_seconds", "When fstore check last ran.");
    metrics.addKnown(state.check);
    metrics.begin("last_check_sound", "Whether that found no damage.");
    metrics.addKnown(state.check ? std::optional<std::int64_t>(state.isSound ? 1 : 0)
                                 : std::nullopt);
}

void write(const std::string& text, std::optional<OutputFile>& file, Context& context) {
    if (!file) {
        context.output.raw(text);
        return;
    }
    file->write({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
    file->allow(kReadableByAll);  // it is for another user, and says what plain records say
    file->commit();
}

Status runMetrics(const MetricsOptions& options, Context& context) {
    if (context.output.json()) {
        throw Failure(kUsage, "metrics are for Prometheus; `fstore ls --json` says the same");
    }
    std::optional<OutputFile> file;
    if (options.file != kStandardStream) {
        file.emplace(options.file, options.force || isOurs(options.file));
    }
    Metrics metrics;
    Missed missed;
    {
        const Hold hold = context.database.enter(Access::kRead, needFor(options.secrets));
        missed = addRecords(options, context.database, metrics);
    }
    addState(readState(context.database.place()), metrics);
    write(metrics.text(), file, context);
    for (const auto& [address, failure] : missed.damaged) {
        context.output.warn(failure.what());
    }
    for (const Failure& failure : missed.unread) {
        context.output.warn(failure.what());
    }
    for (const Address& address : missed.undated) {
        context.output.warn(
            fmt::format("the end of {} is not known; see `fstore check --deep`", address.print()));
    }
    const bool isWhole = missed.isComplete() && missed.undated.empty();
    return missed.hasDamage() ? kFound : isWhole ? kOk : kPartial;
}

}  // namespace

void addMetrics(Cli& cli) {
    const auto options = std::make_shared<MetricsOptions>();
    Command& command =
        cli.add("metrics", "Print what Prometheus asks of a database",
                [options](Context& context) { return runMetrics(*options, context); });
    command.option("-o,--output", "FILE", &options->file,
                   "A file to replace, \"fstore.prom\" in the node exporter's folder");
    command.flag("-f,--force", &options->force, "Replace a file that has no metrics of a database");
    command.flag("--all", &options->all,
                 "Also the ends of certificates of others, whose keys are not here");
    command.flag("-u,--unlock", &options->secrets,
                 "Take the password, and look at encrypted parts too");
}

}  // namespace fstore
