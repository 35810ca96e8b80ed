// What is wrong with a command line, in the words of who typed it.
#ifndef FSTORE_COMMANDS_MISUSE_H
#define FSTORE_COMMANDS_MISUSE_H

#include <deque>
#include <string>
#include <vector>

#include "fstore/commands/command.h"

namespace fstore {

// The command that was named, below those that it belongs to: "key" and "add", or none.
using CommandPath = std::vector<const Command*>;

// "fstore key add".
std::string nameOf(const CommandPath& path);

// Each is a sentence that ends by naming the help to look at.

std::string unknownCommand(const CommandPath& path, const std::deque<Command>& commands,
                           const std::string& word);
std::string missingCommand(const CommandPath& path, const std::deque<Command>& commands);
// Neither the command nor the program has such an option.
std::string unknownOption(const CommandPath& path, const Command& program, const std::string& word);
std::string surplusArgument(const CommandPath& path, const std::string& word);
// `name` is that of an option or argument that is required.
std::string missingArgument(const CommandPath& path, const std::string& name);
// `name` is that of an option that has nothing behind it.
std::string missingValue(const CommandPath& path, const Command& program, const std::string& name);
std::string repeatedOption(const CommandPath& path, const std::string& name);
// `name` is that of an option without a value, and without its dashes.
std::string unwantedValue(const CommandPath& path, const std::string& name);
// A command stands where its arguments would.
std::string commandBehindDashes(const CommandPath& path);
// Anything else, which has been put into words: "--cost: ...".
std::string otherMisuse(const CommandPath& path, const std::string& what);

// "red, blue or green".
std::string listOf(const std::vector<std::string>& names);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_MISUSE_H
