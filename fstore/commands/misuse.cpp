#include "fstore/commands/misuse.h"

#include <fmt/format.h>

#include "lib/base/nearest.h"
#include "lib/base/printable.h"

namespace fstore {
namespace {

std::string helpOf(const CommandPath& path) {
    return fmt::format("see `{} --help`", nameOf(path));
}

std::string meant(const Nearest& nearest) {
    return nearest.found().empty() ? "" : fmt::format("; did you mean \"{}\"?", nearest.found());
}

void offerOptions(Nearest& nearest, const Command& command) {
    for (const Option& option : command.options()) {
        if (!option.isArgument()) {
            nearest.offer(option.longName);
        }
    }
}

}  // namespace

std::string nameOf(const CommandPath& path) {
    std::string name = "fstore";
    for (const Command* command : path) {
        name += ' ' + command->name();
    }
    return name;
}

std::string listOf(const std::vector<std::string>& names) {
    std::string list;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const char* const before = i == 0 ? "" : i + 1 == names.size() ? " or " : ", ";
        list += before + names[i];
    }
    return list;
}

std::string unknownCommand(const CommandPath& path, const std::deque<Command>& commands,
                           const std::string& word) {
    Nearest nearest(word);
    for (const Command& command : commands) {
        if (!command.isHidden()) {
            nearest.offer(command.name());
        }
    }
    return fmt::format("there is no command \"{} {}\"{}; {}", nameOf(path), printable(word),
                       meant(nearest), helpOf(path));
}

std::string missingCommand(const CommandPath& path, const std::deque<Command>& commands) {
    if (path.empty()) {
        return fmt::format("name a command, such as \"fstore ls\"; {}", helpOf(path));
    }
    std::vector<std::string> names;
    names.reserve(commands.size());
    for (const Command& command : commands) {
        names.push_back(command.name());
    }
    return fmt::format("\"{}\" needs one of {}; {}", nameOf(path), listOf(names), helpOf(path));
}

std::string unknownOption(const CommandPath& path, const Command& program,
                          const std::string& word) {
    if (word.starts_with("-=")) {  // what is left of "-f=no" without the flag
        return fmt::format("a flag of one letter takes no value, such as \"{}\"; {}",
                           printable(word.substr(1)), helpOf(path));
    }
    const std::string option = word.substr(0, word.find('='));
    const bool hasName = option.find_first_not_of('-') != std::string::npos;
    const std::string& name = hasName ? option : word;
    Nearest nearest(name);
    if (!path.empty()) {
        offerOptions(nearest, *path.back());
    }
    offerOptions(nearest, program);
    return fmt::format("\"{}\" has no option {}{}; {}", nameOf(path), printable(name),
                       meant(nearest), helpOf(path));
}

std::string surplusArgument(const CommandPath& path, const std::string& word) {
    return fmt::format("\"{}\" is one argument too many for \"{}\"; {}", printable(word),
                       nameOf(path), helpOf(path));
}

std::string missingArgument(const CommandPath& path, const std::string& name) {
    const Option* const option = path.empty() ? nullptr : path.back()->find(name);
    const std::string what = option == nullptr ? "" : fmt::format(" ({})", option->description);
    return fmt::format("\"{}\" needs {}{}; {}", nameOf(path), name, what, helpOf(path));
}

std::string missingValue(const CommandPath& path, const Command& program, const std::string& name) {
    const Option* option = path.empty() ? nullptr : path.back()->find(name);
    if (option == nullptr) {
        option = program.find(name);
    }
    return fmt::format("{} needs a value{}; {}", name,
                       option == nullptr ? "" : fmt::format(": {} {}", name, option->type),
                       helpOf(path));
}

std::string repeatedOption(const CommandPath& path, const std::string& name) {
    return fmt::format("{} is given more than once; {}", name, helpOf(path));
}

std::string unwantedValue(const CommandPath& path, const std::string& name) {
    return fmt::format("{}{} takes no value; {}", name.size() == 1 ? "-" : "--", name,
                       helpOf(path));
}

std::string commandBehindDashes(const CommandPath& path) {
    return fmt::format(
        "\"--\" stands in front of the arguments of a command; name the command before it; {}",
        helpOf(path));
}

std::string otherMisuse(const CommandPath& path, const std::string& what) {
    return fmt::format("{}; {}", what, helpOf(path));
}

}  // namespace fstore
