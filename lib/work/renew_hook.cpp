#include "lib/work/renew_hook.h"

#include <string_view>

#include <fmt/format.h>

#include "lib/base/error.h"

namespace fstore {
namespace {

// As one word of a shell.
std::string shellWord(std::string_view text) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_./:=,@%+";
    if (!text.empty() && text.find_first_not_of(kPlain) == std::string_view::npos) {
        return std::string(text);
    }
    std::string word = "'";
    for (const char c : text) {
        word += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return word + "'";
}

std::string command(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + shellWord(word);
    }
    return text;
}

// What the programs give their hook, as words of a shell.
struct Files {
    std::string_view key, chain;
};

// Programs run one hook for all that they renew. Another program may read the key of what is not
// deployed here, so only the key of the deployed certificate is emptied; whoever reads that one
// reads what was deployed. Not removed: certbot takes a lineage whose key is missing for broken.
// Commands without line breaks of their own, as some programs want one line.
std::string emptying(const HookRules& rules, const Files& files, std::string_view empty) {
    return fmt::format(
        "if why=$({} show {} --same-as {} 2>&1 >/dev/null); then {}; "
        "else code=$?; echo {}\" is not emptied: ${{why#fstore: error: }}\"; [ \"$code\" = {} ]; "
        "fi",
        command(rules.fstore), command(rules.emptyKeyOf), files.chain, empty, files.key,
        exitCodeOf(kMissing));
}

// A key that is empty was imported by another hook of this database, and then emptied.
std::string importing(const HookRules& rules, const Files& files) {
    const std::string import =
        fmt::format("{} import {} {}", command(rules.fstore), files.key, files.chain);
    return rules.emptyKeyOf.empty() ? import
                                    : fmt::format("if [ -s {} ]; then {}; fi", files.key, import);
}

std::vector<std::string> stepsOf(const HookRules& rules, const Files& files,
                                 std::string_view empty) {
    std::vector<std::string> steps{
        importing(rules, files),
        fmt::format("{} deploy {}", command(rules.fstore), command(rules.deploy))};
    if (!rules.emptyKeyOf.empty()) {
        steps.push_back(emptying(rules, files, empty));
    }
    return steps;
}

// Beside its lineages certbot keeps each key that it has made once more, under a number.
std::vector<std::string> stepsOfCertbot(const HookRules& rules) {
    return stepsOf(
        rules, {"\"$RENEWED_LINEAGE/privkey.pem\"", "\"$RENEWED_LINEAGE/fullchain.pem\""},
        "\n"
        "    for copy in \"$RENEWED_LINEAGE\"/../../keys/*; do\n"
        "        if cmp -s \"$copy\" \"$RENEWED_LINEAGE/privkey.pem\"; then : >\"$copy\"; fi\n"
        "    done\n"
        "    : >\"$RENEWED_LINEAGE/privkey.pem\"");
}

std::string script(std::string_view client, std::string_view begin,
                   const std::vector<std::string>& steps) {
    return fmt::format(
        "#!/bin/sh\n"
        "# Written by `fstore renew-hook {}`: imports the renewed certificate with "
        "its key, and deploys it.\n"
        "set -eu\n{}{}\n",
        client, begin, fmt::join(steps, "\n"));
}

}  // namespace

std::string renewHook(const HookRules& rules) {
    switch (rules.client) {
        case RenewalClient::kCertbot:
            return script("certbot", "", stepsOfCertbot(rules));
        case RenewalClient::kDehydrated:
            return script("dehydrated",
                          "[ \"$1\" = deploy_cert ] || exit 0  # it calls for other things, too\n",
                          stepsOf(rules, {"\"$3\"", "\"$5\""}, ": >\"$3\""));
        case RenewalClient::kAcmeSh:
            break;
    }
    const auto steps =
        stepsOf(rules, {"\"$CERT_KEY_PATH\"", "\"$CERT_FULLCHAIN_PATH\""}, ": >\"$CERT_KEY_PATH\"");
    return fmt::format("--reloadcmd {}\n", shellWord(fmt::format("{}", fmt::join(steps, " && "))));
}

}  // namespace fstore
