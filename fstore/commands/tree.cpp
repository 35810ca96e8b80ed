// fstore tree: certificates under their issuers.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/record_json.h"
#include "fstore/commands/record_text.h"
#include "lib/base/printable.h"
#include "lib/base/time.h"
#include "lib/work/forest.h"
#include "lib/work/uri.h"

namespace fstore {
namespace {

struct TreeOptions {
    std::optional<std::string> host;
};

std::string endOf(const RecordInfo& info) {
    return info.notAfter ? dayOf(*info.notAfter) : "?";
}

// "until 2030-01-31", and what is odd about it.
Cell stateOf(const Branch& branch, std::int64_t time) {
    const RecordInfo& info = branch.info;
    std::string state = "until " + endOf(info);
    if (info.notAfter && *info.notAfter < time) {
        state = "expired " + endOf(info);
    } else if (info.notBefore && *info.notBefore > time) {
        state = "from " + dayOf(*info.notBefore);
    }
    const std::size_t dated = columnsOf(state);
    if (branch.isSuperseded) {
        state += ", superseded";
    }
    if (branch.key) {
        state += ", key " + branch.key->print();
    }
    return {state, Style::kPlain, dated};
}

// Whether another one of the same issuer follows.
bool hasNext(const Forest& forest, std::size_t index) {
    const Branch& branch = forest.branches[index];
    for (std::size_t i = index + 1; i < forest.branches.size(); ++i) {
        if (forest.branches[i].depth <= branch.depth) {
            return forest.branches[i].depth == branch.depth;
        }
    }
    return false;
}

class Drawing {
public:
    Drawing(const Forest& forest, Output& output) : forest_(forest), output_(output) {}

    void draw() {
        for (std::size_t i = 0; i < forest_.branches.size(); ++i) {
            drawBranch(i);
        }
        if (forest_.first) {
            const RecordInfo& info = forest_.branches[*forest_.first].info;
            output_.summary(fmt::format("the first to end is {}, in {} days", info.address.print(),
                                        (*info.notAfter - time_) / kDay));
        }
    }

private:
    void drawBranch(std::size_t index) {
        const Branch& branch = forest_.branches[index];
        if (branch.depth == 0 && !branch.isRoot) {
            drawRow(0, {{branch.issuerBelow
                             ? fmt::format("{} ({}, shown below)", branch.info.issuer,
                                           branch.issuerBelow->print())
                             : fmt::format("{} (not in the database)", branch.info.issuer)}});
        }
        // A lost one hangs below the line of its issuer, and all below it one step further.
        const bool isLost = branch.depth == 0 ? !branch.isRoot : isBelowLost_;
        isBelowLost_ = isLost;
        const std::size_t depth = branch.depth + (isLost ? 1 : 0);
        const bool goesOn = branch.depth != 0 && hasNext(forest_, index);
        lines_.resize(depth);
        std::string head;
        for (std::size_t i = 0; i + 1 < depth; ++i) {
            head += lines_[i] ? "│  " : "   ";
        }
        if (depth != 0) {
            head += goesOn ? "├─ " : "└─ ";
            lines_.back() = goesOn;
        }
        drawRow(
            columnsOf(head),
            {{head + titleOf(branch.info)}, {branch.info.address.print()}, stateOf(branch, time_)});
    }

    // A table of its own, so that short lines stay together. `head` is what is drawn before a name.
    void drawRow(std::size_t head, std::vector<Cell> cells) {
        // At 40 columns there is room for all three, two steps below a root.
        constexpr std::size_t kName = 6;
        Table row({{.title = {}, .weight = 4, .least = head + kName},
                   {.title = {}, .weight = 3, .least = 8, .cut = Table::Cut::kInside},
                   {.title = {}, .weight = 4, .cut = Table::Cut::kWords}});
        cells.resize(3);
        row.add(cells);
        output_.table(row);
    }

    const Forest& forest_;
    Output& output_;
    const std::int64_t time_ = now();
    std::vector<bool> lines_;  // at which depths a line goes on
    bool isBelowLost_ = false;
};

Json toJson(const Branch& branch, const Forest& forest) {
    Json json = toJson(branch.info);
    json["depth"] = branch.depth;
    json["root"] = branch.isRoot;
    json["isSuperseded"] = branch.isSuperseded;
    if (branch.issuer) {
        json["issuerAddress"] = jsonText(forest.branches[*branch.issuer].info.address.print());
    } else if (branch.issuerBelow) {
        json["issuerAddress"] = jsonText(branch.issuerBelow->print());
    } else if (!branch.isRoot) {
        json["missing"] = jsonText(branch.info.issuer);
    }
    if (branch.key) {
        json["keyAddress"] = jsonText(branch.key->print());
    }
    return json;
}

Json toDocument(const Forest& forest) {
    Json records = Json::array();
    for (const Branch& branch : forest.branches) {
        records.push_back(toJson(branch, forest));
    }
    Json document = {{"records", std::move(records)}};
    if (forest.first) {
        document["first"] = jsonText(forest.branches[*forest.first].info.address.print());
    }
    return document;
}

Status runTree(const TreeOptions& options, Context& context) {
    const std::optional<std::string> host =
        options.host ? std::optional(hostNameOf(*options.host)) : std::nullopt;
    const Forest forest = withSecrets(context.database, Access::kRead,
                                      [&] { return forestOf(context.database, host); });
    for (const Failure& failure : forest.leftOut) {
        context.output.warn(fmt::format("left out: {}", failure.what()));
    }
    if (host && forest.branches.empty()) {
        throw Failure(kMissing, fmt::format("no certificate for {} in the database", *host));
    }
    Drawing(forest, context.output).draw();
    context.output.document(toDocument(forest));
    return forest.leftOut.empty() ? kOk : kPartial;
}

}  // namespace

void addTree(Cli& cli) {
    const auto options = std::make_shared<TreeOptions>();
    Command& command = cli.add("tree", "Show certificates under their issuers",
                               [options](Context& context) { return runTree(*options, context); });
    command.option("--for", "HOST", &options->host, "Only what is for this host, and its issuers");
}

}  // namespace fstore
