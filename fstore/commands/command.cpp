#include "fstore/commands/command.h"

#include <algorithm>
#include <cstddef>

namespace fstore {
namespace {

// From "-o,--output", or from the long name alone.
void setNames(Option& option, const std::string& names) {
    const std::size_t comma = names.find(',');
    if (comma != std::string::npos) {
        option.shortName = names.substr(0, comma);
        option.longName = names.substr(comma + 1);
    } else {
        option.longName = names;
    }
}

}  // namespace

void Choice::take(const std::string& name) const {
    setters[static_cast<std::size_t>(std::ranges::find(names, name) - names.begin())]();
}

Command::Command(std::string name, std::string description, Run run)
    : name_(std::move(name)), description_(std::move(description)), run_(std::move(run)) {
    setNames(add(Option::Help(), "Print help and exit"), "-h,--help");
}

Option& Command::add(Option::Target target, std::string description) {
    Option& option = options_.emplace_back();
    option.target = std::move(target);
    option.description = std::move(description);
    option.group = group_;
    return option;
}

const Option* Command::find(const std::string& name) const {
    const auto found = std::ranges::find_if(options_, [&](const Option& option) {
        return option.isArgument() ? option.type == name : option.isCalled(name);
    });
    return found != options_.end() ? &*found : nullptr;
}

Command& Command::subcommand(std::string name, std::string description, Run run) {
    return subcommands_.emplace_back(std::move(name), std::move(description), std::move(run));
}

Option& Command::version() {
    Option& option = add(Option::Version(), "Display program version information and exit");
    setNames(option, "--version");
    return option;
}

Option& Command::flag(const std::string& names, bool* target, std::string description) {
    Option& option = add(target, std::move(description));
    setNames(option, names);
    return option;
}

Option& Command::option(const std::string& names, std::string type, Option::Target target,
                        std::string description) {
    Option& option = add(std::move(target), std::move(description));
    setNames(option, names);
    option.type = std::move(type);
    return option;
}

Option& Command::argument(std::string name, Option::Target target, std::string description) {
    Option& option = add(std::move(target), std::move(description));
    option.type = std::move(name);
    option.required = true;
    return option;
}

}  // namespace fstore
