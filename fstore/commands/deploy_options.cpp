#include "fstore/commands/deploy_options.h"

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "lib/base/error.h"
#include "lib/base/files.h"
#include "lib/work/uri.h"

namespace fstore {
namespace {

// A host, or the URI that asks for it.
Selector selectorOf(const std::string& text) {
    if (!isUri(text)) {
        return {hostNameOf(text), Selector::Type::kPair, {}};
    }
    const RecordUri uri = parseUri(text);
    if (!uri.selector || uri.selector->type != Selector::Type::kPair) {
        throw Failure(kUsage,
                      "a certificate and its key are deployed together; name them as in "
                      "fstore:///?for=www.example.com, without type=");
    }
    return *uri.selector;
}

// The absolute path, of several spellings of it the shortest: a file that is named twice is one. A
// "." at the end stays, which names a folder, and so does "..", which means what links make of it.
std::string plainPath(const std::string& path) {
    const std::string given = absolutePath(path);
    std::string plain;
    for (std::size_t at = 0; at != std::string::npos;) {
        const std::size_t next = given.find('/', at + 1);
        const std::string step = given.substr(at, next - at);
        const bool isLast = next == std::string::npos;
        if (isLast || (step != "/" && step != "/.")) {
            plain += step;
        }
        at = next;
    }
    return plain;
}

std::optional<std::string> absolute(const std::optional<std::string>& path) {
    return path ? std::optional(plainPath(*path)) : std::nullopt;
}

// The program and its arguments, which blanks divide.
std::vector<std::string> wordsOf(std::string_view command) {
    constexpr std::string_view kBlanks = " \t\n", kOfShells = "\"'`\\$&|;<>()*?[]{}~#!";
    if (command.find_first_of(kOfShells) != std::string_view::npos) {
        throw Failure(kUsage,
                      "--reload has characters that only a shell understands; add --shell, "
                      "or name a script");
    }
    std::vector<std::string> words;
    while (!command.empty()) {
        const std::string_view word = command.substr(0, command.find_first_of(kBlanks));
        command.remove_prefix(std::min(word.size() + 1, command.size()));
        if (!word.empty()) {
            words.emplace_back(word);
        }
    }
    return words;
}

}  // namespace

void addDeployOptions(Command& command, DeployOptions* target) {
    command.argument("SELECTOR", &target->selector,
                     "A host, or fstore:///?for=www.example.com&alg=RSA");
    command.option("--chain", "FILE", &target->chain, "For the certificate and its issuers")
        .required = true;
    command.option("--ref", "FILE", &target->ref,
                   "For a reference to the key; may be the file of --chain");
    command.option("--key", "FILE", &target->key,
                   "For the key, not encrypted, for programs that cannot read references");
    command.flag("--private", &target->isPrivate, "All files are readable by their owner only");
    command.option("--reload", "CMD", &target->reload,
                   "Run this program when something changed; if it fails, the old files come back");
    command.flag("--shell", &target->inShell, "Run CMD by /bin/sh -c");
    constexpr double kLeast = 0.1, kMost = 3600;
    command
        .option("--reload-timeout", "SECONDS", Number{&target->reloadSeconds, kLeast, kMost},
                "Seconds after which CMD is killed, and has failed")
        .showsDefault = true;
}

DeployRules rulesOf(const DeployOptions& options) {
    return {selectorOf(options.selector), plainPath(options.chain), absolute(options.ref),
            absolute(options.key), options.isPrivate};
}

std::vector<std::string> reloadOf(const DeployOptions& options) {
    if (!options.reload) {
        if (options.inShell) {
            throw Failure(kUsage, "--shell is how the command of --reload runs, and there is none");
        }
        return {};
    }
    std::vector<std::string> words =
        options.inShell ? std::vector<std::string>{"/bin/sh", "-c", *options.reload}
                        : wordsOf(*options.reload);
    if (words.empty()) {
        throw Failure(kUsage, "the command of --reload is empty");
    }
    return words;
}

}  // namespace fstore
