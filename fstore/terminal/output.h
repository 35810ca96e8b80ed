// What a command says: data on stdout, everything else on stderr.
//
// Text for stdout is kept until the command has ended, so that a command that fails with
// --json leaves stdout empty. With --json, stderr gets at most one document, too, so warnings
// become a part of whichever document is written.
//
// For the main thread.
#ifndef FSTORE_TERMINAL_OUTPUT_H
#define FSTORE_TERMINAL_OUTPUT_H

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fstore/terminal/json.h"
#include "fstore/terminal/table.h"
#include "lib/base/error.h"
#include "lib/base/spill.h"

namespace fstore {

// The line as a terminal of so many columns shows it: broken between words where that is narrow.
std::string fitted(const std::string& line, std::size_t columns);

enum class Colour { kAuto, kAlways, kNever };

class Output {
public:
    struct Settings {
        bool json = false;
        bool quiet = false;
        bool verbose = false;
        Colour colour = Colour::kAuto;
    };

    explicit Output(const Settings& settings);

    bool json() const noexcept { return settings_.json; }
    bool quiet() const noexcept { return settings_.quiet; }
    bool showsProgress() const noexcept { return !settings_.json && !settings_.quiet; }

    // Data. line() and table() are for people and write nothing with --json.
    void line(std::string_view text);  // escaped, and ended by a line feed
    void line(std::string_view head, Style style, std::string_view text);  // with its head in style
    void raw(std::string_view text);                                       // as it is
    void table(const Table& table);
    // As line(), but no wider than a terminal: broken at blanks, and indented from the second line
    // on.
    void sentence(std::string_view head, Style style, std::string_view text,
                  std::size_t indent = 4);
    // A name and its value. On a narrow terminal the value goes on below its beginning.
    void field(std::string_view name, std::string_view value);
    // One document with "schema" in front; once, and only with --json. The long array stands in
    // place of its member of that name.
    void document(Json document);
    void document(Json document, const Json::LongArray& array);

    // On stderr at once: what was done (not with -q), details (with -v only), and
    // what deserves attention. A warning that is there already is only counted, and the number said
    // when the command ends.
    void note(std::string_view text);
    void detail(std::string_view text);
    void warn(std::string_view text);
    // A note that stands below the data, where both are on one terminal: what the data comes to.
    void summary(std::string_view text);

    // Writes what was kept, of a command that failed or is done. Throws kIo; silently when the
    // reader has gone.
    enum class After { kFailure, kDone };
    void flush(After after);
    // A member of the document that tells the command's failure.
    void detailFailure(const std::string& name, Json value);
    // Reports the failure on stderr; with --json nothing that was kept is written.
    void fail(const Failure& failure);

private:
    void say(std::string_view text);
    std::string lineOf(std::string_view text) const;
    void say(std::string_view head, Style style, std::string_view text);
    void sayWarning(std::string_view text);
    void warnOfRepeated();
    void writeKept(After after);
    void addWarnings(Json& document) const;
    Json completed(Json document) const;

    Settings settings_;
    bool colourOut_;
    bool colourErr_;
    std::size_t columns_;     // of stdout; 0 when it is not a terminal
    std::size_t columnsErr_;  // of stderr
    Spill kept_;
    std::vector<std::string> summaries_;
    std::vector<Json::Member> failureDetails_;
    std::vector<std::string> warnings_;                     // with --json
    std::map<std::string, std::size_t, std::less<>> said_;  // and otherwise, how often each
};

}  // namespace fstore

#endif  // FSTORE_TERMINAL_OUTPUT_H
