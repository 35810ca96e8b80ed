#include "fstore/terminal/csv.h"

#include <string_view>

#include "lib/base/printable.h"

namespace fstore {
namespace {

bool looksLikeFormula(std::string_view text) {
    return !text.empty() && std::string_view("=+-@").find(text.front()) != std::string_view::npos;
}

std::string csvField(const std::string& text) {
    std::string shown = (looksLikeFormula(text) ? "'" : "") + printable(text);
    if (shown.find_first_of(",\"") == std::string::npos) {
        return shown;
    }
    std::string quoted = "\"";
    for (const char c : shown) {
        quoted.append(c == '"' ? 2 : 1, c);
    }
    return quoted + '"';
}

}  // namespace

std::string csvLine(const std::vector<std::string>& fields) {
    std::string line;
    for (const std::string& field : fields) {
        line += (&field == &fields.front() ? "" : ",") + csvField(field);
    }
    return line + "\r\n";
}

}  // namespace fstore
