#include "fstore/commands/completion_script.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <string_view>

#include <CLI/CLI.hpp>

#include "format/record_name.h"
#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/records/address.h"
#include "lib/records/record.h"
#include "os/process.h"

namespace fstore {
namespace {

// The values of options and arguments that have few.
const std::vector<std::string>& choicesOf(const std::string& name) {
    static const std::map<std::string, std::vector<std::string>> kChoices{
        {"--color", {"auto", "always", "never"}},
        {"--format", {"pem", "der", "p12"}},
        {"--sort", {"name", "expiry", "subject"}},
        {"SHELL", {"bash", "zsh", "fish"}},
        {"", {}}};
    const auto found = kChoices.find(name);
    return found != kChoices.end() ? found->second : kChoices.at("");
}

// What the words before the one under the cursor say.
struct Line {
    const CLI::App* command = nullptr;
    std::size_t arguments = 0;             // of the command
    const CLI::Option* pending = nullptr;  // whose value comes next
    bool onlyArguments = false;            // behind "--"
    std::optional<std::string> folder;     // of --dir
};

bool takesValue(const CLI::Option& option) {
    return option.get_items_expected_max() > 0;
}

std::string longNameOf(const CLI::Option& option) {
    return option.get_lnames().empty() ? std::string() : "--" + option.get_lnames().front();
}

const CLI::Option* optionOf(const CLI::App& parser, const CLI::App* command,
                            const std::string& name) {
    const CLI::Option* const own =
        command != nullptr ? command->get_option_no_throw(name) : nullptr;
    return own != nullptr ? own : parser.get_option_no_throw(name);
}

class LineReader {
public:
    explicit LineReader(const CLI::App& parser) : parser_(parser) {}

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
        if (longNameOf(*line_.pending) == "--dir") {
            line_.folder = value;
        }
        line_.pending = nullptr;
    }

    void expectValue(const CLI::Option* option) {
        line_.pending = option != nullptr && takesValue(*option) ? option : nullptr;
    }

    void readPlain(const std::string& word) {
        if (line_.command != nullptr) {
            ++line_.arguments;
        } else {
            const auto named = parser_.get_subcommands(
                [&](const CLI::App* command) { return command->get_name() == word; });
            line_.command = named.empty() ? nullptr : named.front();
        }
    }

    void readLong(const std::string& word) {
        const std::size_t equals = word.find('=');
        expectValue(optionOf(parser_, line_.command, word.substr(0, equals)));
        if (line_.pending != nullptr && equals != std::string::npos) {
            endPending(word.substr(equals + 1));
        }
    }

    // "-qD" and "-Dfolder"
    void readShort(const std::string& word) {
        for (std::size_t i = 1; i < word.size() && line_.pending == nullptr; ++i) {
            expectValue(optionOf(parser_, line_.command, std::string{'-', word[i]}));
            if (line_.pending != nullptr && i + 1 < word.size()) {
                endPending(word.substr(i + 1));
                return;
            }
        }
    }

    const CLI::App& parser_;
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
    void addFiles(Completion::Files files) { completion_.files = files; }

    const std::string& typed() const noexcept { return typed_; }
    bool empty() const noexcept { return completion_.words.empty(); }
    Completion take() { return std::move(completion_); }

private:
    std::string typed_, head_;
    Completion completion_;
};

void addOptions(const CLI::App& app, Collector& to) {
    for (const CLI::Option* const option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            to.add("--" + name, option->get_description());
        }
        for (const std::string& name : option->get_snames()) {
            to.add("-" + name, option->get_description());
        }
    }
}

void addCommands(const CLI::App& parser, Collector& to) {
    for (const CLI::App* const command : parser.get_subcommands(nullptr)) {
        if (!command->get_group().empty()) {  // hidden ones have none
            to.add(command->get_name(), command->get_description());
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
    for (const std::string& folder : allFolders()) {
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
    for (const std::string& folder : allFolders()) {
        if (!folder.empty()) {
            to.add(folder);
        }
    }
}

// Names of the database; none when it cannot be read.
void addFromDatabase(const Line& line, Collector& to, void (*add)(Collector&)) {
    const char* const variable = std::getenv("FSTORE_DIR");
    const std::string folder = line.folder.value_or(variable != nullptr ? variable : ".");
    if (!os::changeFolder(folder.c_str())) {
        return;
    }
    try {
        add(to);
    } catch (const Failure&) {
        return;  // whoever types a command is not to be told now
    }
}

// By what the option or argument is called.
void addValues(const std::string& name, const std::string& typeName, const Line& line,
               Collector& to) {
    to.add(choicesOf(name));
    if (typeName == "ADDRESS") {
        addFromDatabase(line, to, addRecords);
    } else if (typeName == "FOLDER") {
        addFromDatabase(line, to, addFolders);
    } else if (typeName == "FILE") {
        to.addFiles(Completion::Files::kAny);
    } else if (typeName == "DIR") {
        to.addFiles(Completion::Files::kFolders);
    }
}

void addOptionValues(const CLI::Option& option, const Line& line, Collector& to) {
    std::string type = option.get_type_name();
    type = type.substr(0, type.find(':'));  // a check's name may follow
    addValues(longNameOf(option), type, line, to);
}

void addArguments(const Line& line, Collector& to) {
    const auto arguments = line.command->get_options(
        [](const CLI::Option* option) { return option->get_positional(); });
    if (arguments.empty()) {
        return;
    }
    const bool isLast = line.arguments >= arguments.size();
    const CLI::Option& argument = *(isLast ? arguments.back() : arguments[line.arguments]);
    if (isLast && argument.get_expected_max() <= 1) {
        return;
    }
    const std::string& name = argument.get_name(/*positional=*/true);
    addValues(name, name, line, to);
}

// "--format=p" in one word, as other shells than bash have it.
const CLI::Option* joinedOption(const CLI::App& parser, const Line& line, const std::string& word) {
    const std::size_t equals = word.find('=');
    if (line.onlyArguments || !word.starts_with("--") || equals == std::string::npos) {
        return nullptr;
    }
    return optionOf(parser, line.command, word.substr(0, equals));
}

}  // namespace

Completion complete(const CLI::App& parser, const std::vector<std::string>& words,
                    std::size_t index) {
    LineReader reader(parser);
    for (std::size_t i = 1; i < std::min(index, words.size()); ++i) {
        reader.read(words[i]);
    }
    const Line& line = reader.line();
    const std::string typed = index < words.size() ? words[index] : std::string();
    if (line.pending != nullptr) {
        Collector to(typed == "=" ? std::string() : typed, {});
        addOptionValues(*line.pending, line, to);
        return to.take();
    }
    if (const CLI::Option* const option = joinedOption(parser, line, typed)) {
        const std::size_t value = typed.find('=') + 1;
        Collector to(typed.substr(value), typed.substr(0, value));
        addOptionValues(*option, line, to);
        return to.take();
    }
    Collector to(typed, {});
    if (typed.starts_with('-') && !line.onlyArguments) {
        if (line.command != nullptr) {
            addOptions(*line.command, to);
        }
        addOptions(parser, to);
    } else if (line.command == nullptr) {
        addCommands(parser, to);
    } else {
        addArguments(line, to);
    }
    return to.take();
}

const char* completionScript(const std::string& shell) {
    if (shell == "bash") {
        return R"(# Completion of fstore for bash: put it where bash-completion looks, or source it.
_fstore() {
    local -a answer
    local word current=${COMP_WORDS[COMP_CWORD]}
    COMPREPLY=()
    mapfile -t answer < <("${COMP_WORDS[0]}" complete "$COMP_CWORD" -- "${COMP_WORDS[@]}" 2>/dev/null)
    [[ $current == "=" ]] && current=
    case ${answer[0]} in
        :files) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
        :folders) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    esac
    if ((${#COMPREPLY[@]})); then
        compopt -o filenames 2>/dev/null
    fi
    for word in "${answer[@]:1}"; do
        printf -v word %q "${word%%$'\t'*}"
        COMPREPLY+=("$word")
    done
}
complete -F _fstore fstore
)";
    }
    if (shell == "zsh") {
        return R"(#compdef fstore
# Completion of fstore for zsh: put it as _fstore into a folder of $fpath, or source it.
_fstore() {
    local -a answer plain shown
    local line
    answer=("${(@f)$("${(Q)words[1]}" complete $((CURRENT - 1)) -- "${(@Q)words}" 2>/dev/null)}")
    case $answer[1] in
        (:files) _files; return ;;
        (:folders) _files -/; return ;;
    esac
    for line in "${(@)answer[2,-1]}"; do
        plain+=("${line%%$'\t'*}")
        shown+=("${line/$'\t'/  -- }")
    done
    compadd -l -d shown -a plain
}
if [[ $funcstack[1] == _fstore ]]; then
    _fstore "$@"
else
    compdef _fstore fstore
fi
)";
    }
    return R"(# Completion of fstore for fish: put it into ~/.config/fish/completions, or source it.
function __fstore_complete
    set -l words (commandline -opc)
    set -l current (commandline -ct)
    set -l answer ($words[1] complete (count $words) -- $words "$current" 2>/dev/null)
    switch "$answer[1]"
        case :files
            __fish_complete_path "$current"
        case :folders
            __fish_complete_directories "$current"
        case '*'
            if test (count $answer) -gt 1
                printf '%s\n' $answer[2..-1]
            end
    end
end
complete -c fstore -f -a '(__fstore_complete)'
)";
}

}  // namespace fstore
