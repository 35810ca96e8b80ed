#include "fstore/commands/report_page.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "fstore/commands/record_text.h"
#include "lib/base/printable.h"
#include "lib/base/time.h"

namespace fstore {
namespace {

constexpr std::int64_t kSoonDays = 30;
constexpr std::int64_t kAxis = 400;  // days that the timeline shows
constexpr std::size_t kMostBars = 200;

std::string nameOf(const RecordInfo& info) {
    return info.kind == Kind::kCrl ? "CRL of " + info.issuer : titleOf(info);
}

std::int64_t daysLeft(const RecordInfo& info, std::int64_t time) {
    const std::int64_t seconds = *info.notAfter - time;
    return seconds < 0 ? (seconds - kDay + 1) / kDay : seconds / kDay;
}

const char* classOf(std::int64_t days) {
    return days < 0 ? "bad" : days < kSoonDays ? "soon" : "good";
}

std::string leftText(std::int64_t days) {
    return days < 0 ? fmt::format("expired {} d ago", -days) : fmt::format("in {} d", days);
}

// One cell; its name stands in front of it on a narrow screen.
std::string cell(std::string_view name, std::string_view text) {
    return fmt::format(R"(<td data-name="{}">{}</td>)", name, htmlText(text));
}

std::string table(std::initializer_list<const char*> heads, const std::string& rows) {
    std::string line;
    for (const char* const head : heads) {
        line += fmt::format("<th scope=\"col\">{}</th>", head);
    }
    return fmt::format(
        "<div class=\"wide\"><table><thead><tr>{}</tr></thead><tbody>\n{}</tbody></table></div>\n",
        line, rows);
}

class Page {
public:
    Page(const Survey& survey, const std::string& name, std::int64_t time)
        : survey_(survey), name_(name), time_(time) {}

    std::string header() const;
    std::string timeline() const;
    std::string chains() const;
    std::string keys() const;
    std::string oddities() const;
    std::string all() const;

private:
    static std::string card(std::size_t count, std::string_view what, std::string_view style = {}) {
        return fmt::format("<li><b class=\"{}\">{}</b>{}</li>\n", count == 0 ? "" : style, count,
                           what);
    }
    std::string bar(const Dated& dated) const;
    std::string branch(const Branch& branch) const;
    std::string row(const Dated& dated) const;
    // What somebody waits for: of others' certificates only CAs.
    std::vector<const Dated*> watched() const {
        std::vector<const Dated*> found;
        for (const Dated& dated : survey_.dated) {
            if (!dated.isSuperseded &&
                (dated.hasKey || dated.info.isCa || dated.info.kind == Kind::kCrl)) {
                found.push_back(&dated);
            }
        }
        return found;
    }

    const Survey& survey_;
    const std::string& name_;
    const std::int64_t time_;
};

std::string Page::header() const {
    std::size_t soon = 0;
    std::size_t expired = 0;
    for (const Dated* const dated : watched()) {
        const std::int64_t days = daysLeft(dated->info, time_);
        expired += days < 0 ? 1 : 0;
        soon += days >= 0 && days < kSoonDays ? 1 : 0;
    }
    std::string text = fmt::format(
        "<h1>Keys and certificates</h1>\n<p class=\"soft\">{}, as of <time "
        "datetime=\"{}\">{}</time></p>\n",
        htmlText(name_), printTime(time_), printTime(time_));
    text += "<ul class=\"cards\">\n" + card(survey_.forest.branches.size(), "certificates") +
            card(survey_.keys.size(), "keys") + card(soon, "end within 30 days", "soon") +
            card(expired, "expired", "bad") + card(survey_.oddities.size(), "weak or odd", "soon") +
            "</ul>\n";
    for (const Failure& failure : survey_.unread) {
        text += fmt::format("<p class=\"bad\">Not read: {}</p>\n", htmlText(failure.what()));
    }
    return text;
}

std::string Page::bar(const Dated& dated) const {
    const std::int64_t days = daysLeft(dated.info, time_);
    const std::int64_t width = std::clamp<std::int64_t>(days, 0, kAxis) * 100 / kAxis;
    return fmt::format(
        "<li><span>{}<br><span class=\"soft\">{}</span></span>"
        "<span class=\"track {}\"><i style=\"width:{}%\"></i></span>"
        "<span class=\"end\">{}<br><span class=\"{}\">{}</span></span></li>\n",
        htmlText(nameOf(dated.info)), htmlText(dated.info.address.print()), classOf(days), width,
        dayOf(*dated.info.notAfter), classOf(days), leftText(days));
}

std::string Page::timeline() const {
    const std::vector<const Dated*> shown = watched();
    if (shown.empty()) {
        return "<p>Nothing that ends is here.</p>\n";
    }
    std::string ticks;
    for (const std::int64_t day :
         {std::int64_t{30}, std::int64_t{90}, std::int64_t{180}, std::int64_t{365}}) {
        ticks += fmt::format("<span style=\"left:{}%\">{} d</span>", day * 100 / kAxis, day);
    }
    std::string text = fmt::format(
        "<ul class=\"times\">\n<li class=\"axis\" aria-hidden=\"true\"><span></span>"
        "<div class=\"ticks\">{}</div></li>\n",
        ticks);
    for (std::size_t i = 0; i < std::min(shown.size(), kMostBars); ++i) {
        text += bar(*shown[i]);
    }
    text += "</ul>\n";
    return shown.size() <= kMostBars
               ? text
               : text + fmt::format("<p>{} more, which end later, are in the table below.</p>\n",
                                    shown.size() - kMostBars);
}

std::string Page::branch(const Branch& branch) const {
    std::string text = htmlText(titleOf(branch.info));
    if (branch.info.notAfter) {
        const std::int64_t days = daysLeft(branch.info, time_);
        text += fmt::format(" <span class=\"{}\">{}, {}</span>", classOf(days),
                            dayOf(*branch.info.notAfter), leftText(days));
    }
    text += branch.isSuperseded ? " superseded" : "";
    text +=
        fmt::format("<br><span class=\"soft\">{}{}</span>", htmlText(branch.info.address.print()),
                    branch.key ? ", key " + htmlText(branch.key->print()) : "");
    if (branch.depth == 0 && !branch.isRoot) {
        text += fmt::format("<br><span class=\"soon\">issued by {}, which is {}</span>",
                            htmlText(branch.info.issuer),
                            branch.issuerBelow ? "shown below" : "not in the database");
    }
    return text;
}

std::string Page::chains() const {
    if (survey_.forest.branches.empty()) {
        return "<p>No certificates.</p>\n";
    }
    std::string text = "<ul class=\"tree\">\n";
    std::size_t open = 0;  // items that may get a list below them
    for (const Branch& each : survey_.forest.branches) {
        for (; open > each.depth + 1; --open) {
            text += "</li></ul>\n";
        }
        if (open == each.depth + 1) {
            text += "</li>\n";
        } else {
            text += each.depth == 0 ? "" : "<ul>\n";
            ++open;
        }
        text += "<li>" + branch(each);
    }
    for (; open > 1; --open) {
        text += "</li></ul>\n";
    }
    return text + "</li></ul>\n";
}

std::string Page::keys() const {
    struct Use {
        std::size_t keys = 0, certificates = 0;
    };
    std::map<std::string, Use> uses;
    for (const RecordInfo& key : survey_.keys) {
        ++uses[key.keyAlgorithm].keys;
    }
    for (const Branch& each : survey_.forest.branches) {
        ++uses[each.info.keyAlgorithm].certificates;
    }
    if (uses.empty()) {
        return "<p>No keys.</p>\n";
    }
    std::string rows;
    for (const auto& [algorithm, use] : uses) {
        const unsigned int bits = rsaBits(algorithm);
        constexpr unsigned int kLeast = 2048;
        rows += "<tr>" + cell("Algorithm", algorithm.empty() ? "not known" : algorithm) +
                cell("Strength", bits == 0       ? ""
                                 : bits < kLeast ? "weak"
                                                 : "good") +
                cell("Keys here", std::to_string(use.keys)) +
                cell("Certificates", std::to_string(use.certificates)) + "</tr>\n";
    }
    return table({"Algorithm", "Strength", "Keys here", "Certificates"}, rows);
}

std::string Page::oddities() const {
    if (survey_.oddities.empty()) {
        return "<p class=\"good\">Nothing.</p>\n";
    }
    std::string rows;
    for (const Oddity& oddity : survey_.oddities) {
        rows += "<tr>" + cell("Record", oddity.info.address.print()) + cell("What", oddity.what) +
                cell("Subject", oddity.info.subject) + "</tr>\n";
    }
    return table({"Record", "What", "Subject"}, rows);
}

std::string Page::row(const Dated& dated) const {
    const RecordInfo& info = dated.info;
    std::string names;
    for (const std::string& name : info.altNames) {
        names += (names.empty() ? "" : ", ") + name;
    }
    const std::int64_t days = daysLeft(info, time_);
    return "<tr>" + cell("Record", info.address.print()) + cell("Subject", nameOf(info)) +
           cell("Names", names) + cell("Algorithm", info.keyAlgorithm) +
           fmt::format(
               "<td data-name=\"Ends\" data-key=\"{}\" class=\"number\">{}<br>"
               "<span class=\"{}\">{}</span></td>",
               printTime(*info.notAfter), dayOf(*info.notAfter), classOf(days),
               dated.isSuperseded ? "superseded" : leftText(days)) +
           cell("Key here", dated.hasKey ? "yes" : "") + "</tr>\n";
}

std::string Page::all() const {
    std::string rows;
    for (const Dated& dated : survey_.dated) {
        rows += row(dated);
    }
    return rows.empty()
               ? "<p>None.</p>\n"
               : table({"Record", "Subject", "Names", "Algorithm", "Ends", "Key here"}, rows);
}

}  // namespace

std::string htmlText(std::string_view text) {
    std::string escaped;
    for (const char c : printable(text)) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            case '\'':
                escaped += "&#39;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

std::string reportPage(const Survey& survey, const std::string& name, std::int64_t time) {
    const Page page(survey, name, time);
    const std::pair<std::string_view, std::string> parts[] = {
        {"<!--header-->\n", page.header()}, {"<!--timeline-->\n", page.timeline()},
        {"<!--odd-->\n", page.oddities()},  {"<!--chains-->\n", page.chains()},
        {"<!--keys-->\n", page.keys()},     {"<!--all-->\n", page.all()}};
    std::string text;
    std::string_view rest = kReportPage;
    for (const auto& [mark, part] : parts) {  // in their order: what a part says is no mark
        const std::size_t at = rest.find(mark);
        text.append(rest.substr(0, at)).append(part);
        rest.remove_prefix(at + mark.size());
    }
    return text.append(rest);
}

}  // namespace fstore
