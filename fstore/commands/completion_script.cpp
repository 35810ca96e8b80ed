#include "fstore/commands/completion_script.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>

#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/records/address.h"
#include "lib/records/catalogue.h"
#include "os/base.h"
#include "os/files.h"

namespace fstore {
namespace {

// What the words before the one under the cursor say.
struct Line {
    const Command* command = nullptr;
    std::size_t arguments = 0;          // of the command
    const Option* pending = nullptr;    // whose value comes next
    bool onlyArguments = false;         // behind "--"
    std::optional<std::string> folder;  // of --dir
};

const Option* optionOf(const Cli& cli, const Command* command, const std::string& name) {
    const Option* const own = command != nullptr ? command->find(name) : nullptr;
    return own != nullptr ? own : cli.program().find(name);
}

// The commands of which one comes next; none when arguments do.
const std::deque<Command>& nextCommands(const Cli& cli, const Command* command) {
    return command != nullptr ? command->subcommands() : cli.commands();
}

class LineReader {
public:
    explicit LineReader(const Cli& cli) : cli_(cli) {}

    void read(const std::string& word) {
        if (line_.pending != nullptr) {
            if (word != "=") {  // which bash makes a word of its own
                endPending(word);
            }
        } else if (line_.onlyArguments || !word.starts_with('-') || word == "-") {
            readPlain(word);
        } else if (word == "--") {
            line_.onlyArguments = true;
        } else if (word.starts_with("--")) {
            readLong(word);
        } else {
            readShort(word);
        }
    }

    const Line& line() const noexcept { return line_; }

private:
    void endPending(const std::string& value) {
        if (line_.pending->longName == "--dir") {
            line_.folder = value;
        }
        line_.pending = nullptr;
    }

    void expectValue(const Option* option) {
        line_.pending = option != nullptr && !option->isFlag() ? option : nullptr;
    }

    void readPlain(const std::string& word) {
        const std::deque<Command>& next = nextCommands(cli_, line_.command);
        if (next.empty()) {
            ++line_.arguments;
            return;
        }
        const auto named = std::ranges::find(next, word, &Command::name);
        line_.command = named != next.end() ? &*named : line_.command;
    }

    void readLong(const std::string& word) {
        const std::size_t equals = word.find('=');
        expectValue(optionOf(cli_, line_.command, word.substr(0, equals)));
        if (line_.pending != nullptr && equals != std::string::npos) {
            endPending(word.substr(equals + 1));
        }
    }

    // "-qD" and "-Dfolder"
    void readShort(const std::string& word) {
        for (std::size_t i = 1; i < word.size() && line_.pending == nullptr; ++i) {
            expectValue(optionOf(cli_, line_.command, std::string{'-', word[i]}));
            if (line_.pending != nullptr && i + 1 < word.size()) {
                endPending(word.substr(i + 1));
                return;
            }
        }
    }

    const Cli& cli_;
    Line line_;
};

// Collects what begins with the typed word, in front of which `head` stands.
class Collector {
public:
    Collector(std::string typed, std::string head)
        : typed_(std::move(typed)), head_(std::move(head)) {}

    void add(const std::string& word, const std::string& description = {}) {
        if (word.starts_with(typed_)) {
            completion_.words.push_back({head_ + word, description});
        }
    }
    void add(const std::vector<std::string>& words) {
        for (const std::string& word : words) {
            add(word);
        }
    }
    bool has(const std::string& word) const {
        return std::ranges::find(completion_.words, head_ + word, &Completion::Word::text) !=
               completion_.words.end();
    }
    void addFiles(Completion::Files files) { completion_.files = files; }

    const std::string& typed() const noexcept { return typed_; }
    bool empty() const noexcept { return completion_.words.empty(); }
    Completion take() { return std::move(completion_); }

private:
    std::string typed_, head_;
    Completion completion_;
};

void addOptions(const Command& command, Collector& to) {
    for (const Option& option : command.options()) {
        for (const std::string& name : {option.longName, option.shortName}) {
            // An option of a command may stand for one of the program.
            if (!name.empty() && !to.has(name)) {
                to.add(name, option.description);
            }
        }
    }
}

void addCommands(const std::deque<Command>& commands, Collector& to) {
    for (const Command& command : commands) {
        if (!command.isHidden()) {
            to.add(command.name(), command.description());
        }
    }
}

// The names of the records of a folder, by the names of the files in it.
std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    for (const FolderEntry& entry : listFolder(folderPath(folder))) {
        if (entry.type == FolderEntry::Type::kFile && hasMarker(entry.name, kDscSuffix)) {
            names.emplace_back(recordName(entry.name));
        }
    }
    return names;
}

std::vector<Address> recordsByName() {
    std::vector<Address> found;
    Unread elsewhere;  // what cannot be read cannot be completed
    for (const std::string& folder : allFolders(&elsewhere)) {
        for (std::string& name : namesIn(folder)) {
            Address address{folder, std::move(name)};
            if (!address.isInternal()) {
                found.push_back(std::move(address));
            }
        }
    }
    return found;
}

void addRecords(Collector& to) {
    const std::vector<Address> records = recordsByName();
    for (const Address& address : records) {
        to.add(address.print());
    }
    if (!to.empty() || to.typed().empty()) {
        return;
    }
    for (const Address& address : records) {
        const auto same = [&](const Address& other) { return other.name == address.name; };
        if (std::ranges::count_if(records, same) == 1) {
            to.add(address.name);
        }
    }
}

void addFolders(Collector& to) {
    Unread elsewhere;  // what cannot be read cannot be completed
    for (const std::string& folder : allFolders(&elsewhere)) {
        if (!folder.empty()) {
            to.add(folder);
        }
    }
}

// Names of the database; none when it cannot be read.
void addFromDatabase(const Line& line, Collector& to, void (*add)(Collector&)) {
    const char* const variable = ::secure_getenv("FSTORE_DIR");
    const std::string folder = line.folder.value_or(variable != nullptr ? variable : ".");
    const os::File opened = os::openFile(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (!opened) {
        return;
    }
    const os::Base base(opened.get());
    try {
        add(to);
    } catch (const Failure&) {
        return;  // whoever types a command is not to be told now
    }
}

// By the type of the value.
void addValues(const Option& option, const Line& line, Collector& to) {
    if (const auto* const choice = std::get_if<Choice>(&option.target)) {
        to.add(choice->names);
    } else if (option.type == "ADDRESS") {
        addFromDatabase(line, to, addRecords);
    } else if (option.type == "FOLDER" || option.type == "NEW") {
        addFromDatabase(line, to, addFolders);
    } else if (option.type == "FILE") {
        to.addFiles(Completion::Files::kAny);
    } else if (option.type == "DIR") {
        to.addFiles(Completion::Files::kFolders);
    }
}

void addArguments(const Line& line, Collector& to) {
    std::vector<const Option*> arguments;
    for (const Option& option : line.command->options()) {
        if (option.isArgument()) {
            arguments.push_back(&option);
        }
    }
    if (line.arguments < arguments.size()) {
        addValues(*arguments[line.arguments], line, to);
    } else if (!arguments.empty() && arguments.back()->takesMany()) {
        addValues(*arguments.back(), line, to);
    }
}

// "--format=p" in one word, as other shells than bash have it.
const Option* joinedOption(const Cli& cli, const Line& line, const std::string& word) {
    const std::size_t equals = word.find('=');
    if (line.onlyArguments || !word.starts_with("--") || equals == std::string::npos) {
        return nullptr;
    }
    return optionOf(cli, line.command, word.substr(0, equals));
}

}  // namespace

Completion complete(const Cli& cli, const std::vector<std::string>& words, std::size_t index) {
    LineReader reader(cli);
    for (std::size_t i = 1; i < std::min(index, words.size()); ++i) {
        reader.read(words[i]);
    }
    const Line& line = reader.line();
    const std::string typed = index < words.size() ? words[index] : std::string();
    if (line.pending != nullptr) {
        Collector to(typed == "=" ? std::string() : typed, {});
        addValues(*line.pending, line, to);
        return to.take();
    }
    if (const Option* const option = joinedOption(cli, line, typed)) {
        const std::size_t value = typed.find('=') + 1;
        Collector to(typed.substr(value), typed.substr(0, value));
        addValues(*option, line, to);
        return to.take();
    }
    Collector to(typed, {});
    if (typed.starts_with('-') && !line.onlyArguments) {
        if (line.command != nullptr) {
            addOptions(*line.command, to);
        }
        addOptions(cli.program(), to);
    } else if (const auto& next = nextCommands(cli, line.command); !next.empty()) {
        addCommands(next, to);
    } else {
        addArguments(line, to);
    }
    return to.take();
}

}  // namespace fstore
