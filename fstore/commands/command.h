// What a command line may say, as data. Commands declare it; the parser (cli.cpp) and the
// shells' completion (completion_script.cpp) read it.
//
//     command.argument("ADDRESS", &options->address, "FOLDER/NAME or a unique NAME");
//     command.option("-o,--output", "FILE", &options->file, "The file to write");
//     command.option("--sort", "ORDER",
//                    Choice(&options->order, {{"name", Order::kName}, {"expiry", Order::kExpiry}}),
//                    "By name or expiry");
//     command.flag("-f,--force", &options->force, "Replace a file that exists");
//
// A target keeps its value when nothing is given for it, and lives as long as the command.
#ifndef FSTORE_COMMANDS_COMMAND_H
#define FSTORE_COMMANDS_COMMAND_H

#include <deque>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "lib/base/error.h"

namespace fstore {

struct Context;

// Does the work and returns kOk, kFound or kPartial; throws everything else.
using Run = std::function<Status(Context&)>;

// One of a few values, by name.
struct Choice {
    template <class T>
    using Named = std::pair<const char*, T>;

    template <class T>
    Choice(T* target, std::initializer_list<Named<std::type_identity_t<T>>> values) {
        for (const auto& [name, value] : values) {
            names.emplace_back(name);
            setters.emplace_back([target, value = value] { *target = value; });
        }
    }

    // Sets the target; `name` is one of the names.
    void take(const std::string& name) const;

    std::vector<std::string> names;
    std::vector<std::function<void()>> setters;  // one a name
};

// A number between the least and the greatest allowed.
struct Number {
    std::variant<unsigned int*, std::optional<int>*, double*> target;
    double least;
    double most;
};

struct Option {
    struct Help {};
    struct Version {};
    // One value; of a vector each value that is given.
    using Target = std::variant<Help, Version, bool*, std::string*, std::optional<std::string>*,
                                std::vector<std::string>*, Number, Choice>;

    bool isArgument() const noexcept { return longName.empty(); }
    bool isFlag() const noexcept { return type.empty(); }
    bool takesMany() const noexcept {
        return std::holds_alternative<std::vector<std::string>*>(target);
    }
    bool isCalled(const std::string& name) const noexcept {
        return !isArgument() && (name == longName || name == shortName);
    }

    std::string longName, shortName;  // "--output" and "-o", or none
    std::string type;                 // of the value, "FILE"; the name of an argument
    Target target;
    std::string description;
    bool required = false;
    bool showsDefault = false;          // in the help: what the target has when nothing is given
    std::string group;                  // under which the help lists it, if not "Options"
    std::vector<std::string> needs;     // long names of options before it that it goes with
    std::vector<std::string> excludes;  // long names of options before it that it cannot go with
    std::string variable;               // of the environment, that is read when it is not given
};

class Command {
public:
    Command(std::string name, std::string description, Run run);

    Option& flag(const std::string& names, bool* target, std::string description);
    Option& option(const std::string& names, std::string type, Option::Target target,
                   std::string description);
    // Arguments are required, in their order, unless the caller says otherwise.
    Option& argument(std::string name, Option::Target target, std::string description);
    Option& version();  // --version, of the program
    // A command below this one, "add" of "key"; this one then does nothing by itself.
    Command& subcommand(std::string name, std::string description, Run run);
    // Under which the help lists what is declared from here on; none at first.
    void startGroup(std::string title) { group_ = std::move(title); }
    // Where it names one record to read, which may be meant by less than its address: where there
    // is none of this address, it is run again with that of the record that is meant.
    void readsMeant(std::string* target) {
        meant_ = {[target] { return *target; },
                  [target](std::string address) { *target = std::move(address); }};
    }
    void readsMeant(std::optional<std::string>* target) {
        meant_ = {[target] { return target->value_or(""); },
                  [target](std::string address) { *target = std::move(address); }};
    }
    // Keeps it out of help and completion.
    void hide() { hidden_ = true; }

    const std::string& name() const noexcept { return name_; }
    const std::string& description() const noexcept { return description_; }
    const Run& run() const noexcept { return run_; }
    bool isHidden() const noexcept { return hidden_; }
    // What was said of that record, or nothing; and its way in.
    std::string meant() const { return meant_.text ? meant_.text() : std::string(); }
    void takeMeant(std::string address) const { meant_.take(std::move(address)); }
    // In the order of the help.
    const std::deque<Option>& options() const noexcept { return options_; }
    const std::deque<Command>& subcommands() const noexcept { return subcommands_; }
    // "--output" or "-o", or the name of an argument; null for none.
    const Option* find(const std::string& name) const;

private:
    Option& add(Option::Target target, std::string description);

    std::string name_, description_;
    Run run_;
    struct {
        std::function<std::string()> text;
        std::function<void(std::string)> take;
    } meant_;
    bool hidden_ = false;
    std::string group_;
    std::deque<Option> options_;
    std::deque<Command> subcommands_;
};

}  // namespace fstore

#endif  // FSTORE_COMMANDS_COMMAND_H
