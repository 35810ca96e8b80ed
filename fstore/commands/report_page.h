// The page that `fstore report` writes: HTML with style and script in it, for any browser, and for
// one without a network or without scripts. Its fixed parts are fstore/report/page.html.
#ifndef FSTORE_COMMANDS_REPORT_PAGE_H
#define FSTORE_COMMANDS_REPORT_PAGE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lib/work/forest.h"
#include "lib/work/survey.h"

namespace fstore {

extern const char kReportPage[];

// The text as HTML, in an element or an attribute: what marks up, and what a terminal must not
// show, is escaped.
std::string htmlText(std::string_view text);

// The page about a database, which is called `name`.
std::string reportPage(const Survey& survey, const std::string& name, std::int64_t time);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_REPORT_PAGE_H
