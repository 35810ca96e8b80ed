// The only file that sees the parser's library, which takes seconds to compile.
#include "fstore/commands/cli.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <utility>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "fstore/commands/common_options.h"
#include "fstore/commands/misuse.h"
#include "fstore/terminal/observer.h"
#include "lib/base/files.h"
#include "lib/base/printable.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/work/meant.h"

namespace fstore {
namespace {

constexpr double kMostLockSeconds = 1e9;

// A command line that cannot be read may ask for JSON all the same.
bool asksForJson(int argc, const char* const* argv) {
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            return true;
        }
    }
    return false;
}

// Runs `body` and tells its failure; the exit code.
template <class Body>
int guarded(Output& output, Body body) {
    try {
        return body();
    } catch (const Failure& failure) {
        output.fail(failure);
        return failure.exitCode();
    } catch (const MemoryFailure& memory) {
        output.fail(memory.failure());
        return memory.failure().exitCode();
    } catch (const LockLost& lost) {
        output.fail(lost.failure());
        return lost.failure().exitCode();
    } catch (const std::bad_alloc&) {
        output.fail(Failure(kNoMemory, "out of memory"));
        return static_cast<int>(kNoMemory);
    } catch (const std::exception& failure) {
        output.fail(Failure(kForeign, fmt::format("unexpected: {}", failure.what())));
        return static_cast<int>(kForeign);
    }
}

// "-o,--output", as the parser takes the names of an option.
std::string namesOf(const Option& option) {
    if (option.isArgument()) {
        return option.type;
    }
    return option.shortName.empty() ? option.longName : option.shortName + "," + option.longName;
}

// Refuses what is not a number within the bounds.
CLI::Validator within(double least, double most) {
    const auto refuse = [least, most](const std::string& text) {
        double value = 0;
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data(), end, value);
        const bool good = error == std::errc() && rest == end && value >= least && value <= most;
        return good
                   ? std::string()
                   : fmt::format("\"{}\" is no number from {} to {}", printable(text), least, most);
    };
    return CLI::Validator(refuse, "");
}

// Refuses what is none of the names.
CLI::Validator oneOf(const std::vector<std::string>& names) {
    const auto refuse = [&names](const std::string& text) {
        return std::ranges::find(names, text) != names.end()
                   ? std::string()
                   : fmt::format("\"{}\" is not {}", printable(text), listOf(names));
    };
    return CLI::Validator(refuse, "");
}

// The parser takes "[a,b]" for two words. So a word like that gets one more character at its end,
// which is taken away again before anybody sees the word. Behind "--" it takes what a command has
// no argument for as an option after all; there a word like an option gets the character in front.
// "--x=" has an empty value, but for the parser none, or the next word: so the character is its
// value.
constexpr char kMark = '\x1f';

std::string marked(std::string word) {
    if (word.starts_with("--") && word.ends_with('=') && word.find('=') == word.size() - 1) {
        word += kMark;
    }
    if (word.starts_with('[') && (word.ends_with(']') || word.ends_with(kMark))) {
        word += kMark;
    }
    return word;
}

bool isMarkedArgument(std::string_view word) {
    return word.size() > 1 && word[0] == kMark && word[1] == '-';
}

std::string unmark(std::string& word) {
    if (isMarkedArgument(word) || word == std::string(1, kMark)) {
        word.erase(0, 1);
    }
    const bool isEmptyValue = word.starts_with("--") && word.ends_with(std::string("=") + kMark);
    if (isEmptyValue || (word.starts_with('[') && word.ends_with(kMark))) {
        word.pop_back();
    }
    return {};  // as of a validator: there is nothing wrong with it
}

// The line without the program's name, last word first, as the parser takes it.
std::vector<std::string> lineOf(int argc, const char* const* argv) {
    std::vector<std::string> words;
    bool isArgument = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        const bool isLikeAnOption = word.starts_with('-') && word != "-";
        words.push_back(isArgument && isLikeAnOption ? kMark + std::string(word)
                                                     : marked(std::string(word)));
        isArgument = isArgument || word == "--";
    }
    std::ranges::reverse(words);
    return words;
}

// The word behind "--"; empty for none.
std::string argumentIn(int argc, const char* const* argv) {
    const char* const* const end = argv + argc;
    const char* const* const dashes =
        std::find_if(argv, end, [](const char* word) { return std::strcmp(word, "--") == 0; });
    return end - dashes > 1 ? dashes[1] : "";
}

// Declares one option to the parser, by what it sets.
class Declaration {
public:
    Declaration(CLI::App& app, const Option& option)
        : app_(app), option_(option), names_(namesOf(option)) {}

    CLI::Option* operator()(Option::Help) const {
        return app_.set_help_flag(names_, option_.description);
    }
    CLI::Option* operator()(Option::Version) const {
        return app_.set_version_flag(names_, "fstore " FSTORE_VERSION);
    }
    CLI::Option* operator()(bool* target) const {
        return app_.add_flag(names_, *target, option_.description)->disable_flag_override();
    }
    template <class T>
    CLI::Option* operator()(T* target) const {
        return app_.add_option(names_, *target, option_.description)
            ->transform(CLI::Validator(unmark, ""));
    }
    CLI::Option* operator()(const Number& number) const {
        CLI::Option* const added = std::visit(*this, number.target);
        return added->check(within(number.least, number.most));
    }
    CLI::Option* operator()(const Choice& choice) const {
        return app_
            .add_option_function<std::string>(
                names_, [&choice](const std::string& name) { choice.take(name); },
                option_.description)
            ->transform(CLI::Validator(unmark, ""))
            ->check(oneOf(choice.names));
    }

private:
    CLI::App& app_;
    const Option& option_;
    std::string names_;
};

void declare(CLI::App& app, const Option& option) {
    CLI::Option& added = *std::visit(Declaration(app, option), option.target);
    added.required(option.required);
    if (!option.isArgument() && !option.isFlag()) {
        added.type_name(option.type)->allow_extra_args(false);
    }
    if (option.showsDefault) {
        added.capture_default_str();
    }
    if (!option.group.empty()) {
        added.group(option.group);
    }
    for (const std::string& other : option.needs) {
        added.needs(app.get_option(other));
    }
    for (const std::string& other : option.excludes) {
        added.excludes(app.get_option(other));
    }
    if (!option.variable.empty()) {
        added.envname(option.variable);
    }
}

// Which commands the parser has to know: those that the line names. All of them take longer to
// declare than most of them to run, and only help tells of all.
class Wanted {
public:
    explicit Wanted(const std::vector<std::string>& words) : words_(words) {
        const auto asksForHelp = [](const std::string& word) {
            const bool isShort = word.size() > 1 && word[0] == '-' && word[1] != '-';
            return word == "--help" || (isShort && word.find('h') != std::string::npos);
        };
        all_ = std::ranges::any_of(words, asksForHelp);
    }

    bool operator()(const Command& command) const {
        return all_ || std::ranges::find(words_, command.name()) != words_.end();
    }

private:
    const std::vector<std::string>& words_;
    bool all_;
};

// NOLINTNEXTLINE(misc-no-recursion): as deep as the commands are declared
void declare(CLI::App& app, const Command& command, const Wanted& isWanted) {
    CLI::App& added = *app.add_subcommand(command.name(), command.description());
    added.fallthrough();
    if (command.isHidden()) {
        added.group("");
    }
    for (const Option& option : command.options()) {
        declare(added, option);
    }
    for (const Command& below : command.subcommands()) {
        if (isWanted(below)) {
            declare(added, below, isWanted);
        }
    }
    added.require_subcommand(command.subcommands().empty() ? 0 : 1);
}

// "key" and "add", when these were given.
CommandPath pathOf(const CLI::App& app, const Cli& cli) {
    CommandPath path;
    const std::deque<Command>* commands = &cli.commands();
    for (const CLI::App* given = &app; !given->get_subcommands().empty();) {
        given = given->get_subcommands().front();
        path.push_back(&*std::ranges::find(*commands, given->get_name(), &Command::name));
        commands = &path.back()->subcommands();
    }
    return path;
}

// What stands in front of `end` in the parser's words.
std::string before(const char* end, const std::string& words) {
    return words.substr(0, words.find(end));
}

// An option with too many values, or too few.
std::string wordsOfMismatch(const CommandPath& path, const Cli& cli, const std::string& words) {
    constexpr const char* kOfFlag = " was given a disallowed flag override";
    if (words.ends_with(kOfFlag)) {  // the name is without its dashes
        return unwantedValue(path, before(kOfFlag, words));
    }
    const std::string name = before(":", words);
    return words.find("At Most") != std::string::npos ? repeatedOption(path, name)
                                                      : missingValue(path, cli.program(), name);
}

// The parser's findings in the user's words. It has taken what it knows of the line; the rest is
// what remains.
// `argument` is the word behind "--", empty for none.
std::string wordsOf(const CLI::ParseError& error, const CLI::App& app, const Cli& cli,
                    const std::string& argument) {
    const CommandPath path = pathOf(app, cli);
    const auto& commands = path.empty() ? cli.commands() : path.back()->subcommands();
    std::vector<std::string> rest = app.remaining(true);
    const bool isBehindDashes = !rest.empty() && rest.front() == "--";
    if (isBehindDashes) {
        rest.erase(rest.begin());
    }
    const bool isArgument = isBehindDashes || (!rest.empty() && isMarkedArgument(rest.front()));
    std::ranges::for_each(rest, unmark);
    if (!commands.empty() && !argument.empty() && (rest.empty() || rest.front() == argument)) {
        return commandBehindDashes(path);
    }
    if (!rest.empty() && error.get_name() != "ArgumentMismatch") {
        const std::string& word = rest.front();
        if (word.starts_with('-') && !isArgument) {
            return unknownOption(path, cli.program(), word);
        }
        return commands.empty() ? surplusArgument(path, word)
                                : unknownCommand(path, commands, word);
    }
    if (error.get_name() == "RequiredError") {
        return commands.empty() ? missingArgument(path, before(" is required", error.what()))
                                : missingCommand(path, commands);
    }
    if (error.get_name() == "ArgumentMismatch") {
        return wordsOfMismatch(path, cli, error.what());
    }
    const std::string words = error.what();
    const std::string excludes = " excludes ";
    if (error.get_name() == "ExcludesError" && words.find(excludes) != std::string::npos) {
        const std::string one = before(excludes.c_str(), words);
        const std::string other = words.substr(one.size() + excludes.size());
        // The parser meets them in no order.
        return otherMisuse(path, fmt::format("{} and {} do not go together", std::min(one, other),
                                             std::max(one, other)));
    }
    return otherMisuse(path, words);
}

// Makes the parser of these words of what `cli` declares.
void declare(CLI::App& app, const Cli& cli, const std::vector<std::string>& words) {
    const Wanted isWanted(words);
    app.require_subcommand(1);
    app.fallthrough();
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.footer("\"fstore COMMAND --help\" describes one command.");
    for (const Option& option : cli.program().options()) {
        declare(app, option);
    }
    for (const Command& command : cli.commands()) {
        if (isWanted(command)) {
            declare(app, command, isWanted);
        }
    }
}

// The same with the record that may have been meant, if one has a name like that.
Failure withNearest(const NoRecord& missing, Database& database) {
    std::string nearest;
    try {
        const Hold hold = database.enter(Access::kRead);
        nearest = nearestRecord(missing.path());
    } catch (const std::exception&) {  // what the command met first is told
        return missing;
    }
    return nearest.empty()
               ? Failure(missing)
               : Failure(kMissing, std::string(missing.withoutAdvice()),
                         Advice{fmt::format("did you mean {}?", nearest)}, missing.path());
}

// The address of the record that is meant by what is the address of none; empty when there is no
// such record, or when it is not this text that was looked for.
std::string meantBy(const std::string& text, const NoRecord& missing, Database& database) {
    if (text.empty() ||
        (text != missing.path() && parseAddress(text).place.print() != missing.path())) {
        return {};
    }
    const Hold hold = database.enter(Access::kRead);
    const auto meant = meantRecord(database, text);
    return meant ? meant->print() : std::string();
}

// The commands that only read take less than an address, too.
Status runMeant(const Command& command, Context& context) {
    const std::string text = command.meant();
    std::string meant;
    try {
        return command.run()(context);
    } catch (const NoRecord& missing) {
        meant = meantBy(text, missing, context.database);
        if (meant.empty()) {
            throw withNearest(missing, context.database);
        }
    }
    context.output.warn(fmt::format("{} is taken to mean {}", printable(text), meant));
    command.takeMeant(meant);
    return command.run()(context);
}

// As other programs have it; none where these variables may be somebody else's.
std::string cacheFolder() {
    const char* const cache = ::secure_getenv("XDG_CACHE_HOME");
    if (cache != nullptr && cache[0] == '/') {
        return joined(cache, "fstore");
    }
    const char* const home = ::secure_getenv("HOME");
    return home != nullptr && home[0] == '/' ? joined(home, ".cache/fstore") : std::string();
}

}  // namespace

Cli::Cli()
    : program_("fstore", "An encrypted, crash-safe store of keys, certificates and settings.", {}) {
    addGlobals();
}

void Cli::addGlobals() {
    program_.version();
    Option& folder =
        program_.option("-D,--dir", "DIR", &globals_.folder, "The folder that holds \"db\"");
    folder.variable = "FSTORE_DIR";
    folder.showsDefault = true;
    addPassword(program_, "--password", "the password", globals_.secret.password);
    program_
        .option("--key-file", "FILE", &globals_.secret.keyFile,
                "Open the database with this key file")
        .excludes = {"--password-file", "--password-fd"};
    program_.flag("--json", &globals_.output.json, "Print one JSON document");
    program_.flag("-q,--quiet", &globals_.output.quiet, "Print failures and warnings only");
    program_.flag("-v,--verbose", &globals_.output.verbose, "Report each step");
    program_.option(
        "--color", "WHEN",
        Choice(&globals_.output.colour,
               {{"auto", Colour::kAuto}, {"always", Colour::kAlways}, {"never", Colour::kNever}}),
        "auto, always or never");
    program_.flag("--no-input", &globals_.noInput, "Never ask on the terminal");
    program_
        .option("--lock-timeout", "SECONDS", Number{&globals_.lockSeconds, 0, kMostLockSeconds},
                "Seconds to wait for another process")
        .showsDefault = true;
    program_.flag("--require-shared-lock", &globals_.requireSharedLock,
                  "Work only where the lock holds between hosts");
}

Command& Cli::add(std::string name, std::string description, Run run) {
    return commands_.emplace_back(std::move(name), std::move(description), std::move(run));
}

int Cli::execute(int argc, const char* const* argv) {
    CLI::App app(program_.description(), program_.name());
    std::vector<std::string> words = lineOf(argc, argv);
    declare(app, *this, words);
    try {
        app.parse(std::move(words));
    } catch (const CLI::ParseError& error) {
        Output output({.json = asksForJson(argc, argv)});
        if (error.get_exit_code() == 0) {  // --help or --version
            return guarded(output, [&] {
                std::ostringstream text;
                (void)app.exit(error, text, text);
                output.raw(text.str());
                output.flush(Output::After::kDone);
                return static_cast<int>(kOk);
            });
        }
        output.fail(Failure(kUsage, wordsOf(error, app, *this, argumentIn(argc, argv))));
        return static_cast<int>(kUsage);
    }
    return run(*pathOf(app, *this).back());
}

std::string Cli::help(std::vector<std::string> words) const {
    CLI::App app(program_.description(), program_.name());
    words.emplace_back("--help");
    declare(app, *this, words);
    std::ranges::reverse(words);  // as the parser takes them
    try {
        app.parse(std::move(words));
    } catch (const CLI::ParseError& error) {
        const bool isAnswered = error.get_exit_code() == 0 && app.remaining(true).empty();
        if (!isAnswered) {
            throw Failure(kUsage, wordsOf(error, app, *this, {}));
        }
    }
    return app.help();
}

int Cli::run(const Command& command) {
    Output output(globals_.output);
    return guarded(output, [&] {
        StandardInput standardInput;
        SecretSource secret(globals_.secret, globals_.noInput, output, standardInput);
        TerminalObserver observer(output);
        if (globals_.folder.empty()) {
            throw Failure(kUsage, "--dir names no folder; see `fstore --help`");
        }
        const Place place{.folder = globals_.folder,
                          .lockSeconds = globals_.lockSeconds,
                          .requireSharedLock = globals_.requireSharedLock,
                          .cache = cacheFolder()};
        UserKeys keys(secret, place, observer);
        Database database(place, observer, &keys);
        Context context{globals_, output, standardInput, secret, database};
        int code = static_cast<int>(kOk);
        try {
            code = exitCodeOf(runMeant(command, context));
        } catch (const std::exception&) {
            if (!output.json()) {
                output.flush(Output::After::kFailure);  // what was found before the failure
            }
            throw;
        }
        output.flush(Output::After::kDone);
        return code;
    });
}

}  // namespace fstore
