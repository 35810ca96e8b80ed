#include "lib/work/renew_hook.h"

#include <string_view>

#include <fmt/format.h>

namespace fstore {
namespace {

// As one word of a shell.
std::string quoted(std::string_view text) {
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
        text += (text.empty() ? "" : " ") + quoted(word);
    }
    return text;
}

// The steps, each a line. `key` and `chain` are words of a shell.
std::vector<std::string> stepsOf(const HookRules& rules, std::string_view key,
                                 std::string_view chain) {
    const std::string fstore = command(rules.fstore);
    std::vector<std::string> steps{fmt::format("{} import {} {}", fstore, key, chain),
                                   fmt::format("{} deploy {}", fstore, command(rules.deploy))};
    if (rules.emptyKey) {
        // Not removed: certbot takes a lineage whose key is missing for broken.
        steps.push_back(fmt::format(": >{}", key));
    }
    return steps;
}

// Beside its lineages certbot keeps each key that it has made once more, under a number.
std::vector<std::string> stepsOfCertbot(const HookRules& rules) {
    auto steps =
        stepsOf(rules, "\"$RENEWED_LINEAGE/privkey.pem\"", "\"$RENEWED_LINEAGE/fullchain.pem\"");
    if (rules.emptyKey) {
        steps.insert(
            steps.end() - 1,
            "for copy in \"$RENEWED_LINEAGE\"/../../keys/*; do\n"
            "    if cmp -s \"$copy\" \"$RENEWED_LINEAGE/privkey.pem\"; then : >\"$copy\"; fi\n"
            "done");
    }
    return steps;
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
                          stepsOf(rules, "\"$3\"", "\"$5\""));
        case RenewalClient::kAcmeSh:
            break;
    }
    const auto steps = stepsOf(rules, "\"$CERT_KEY_PATH\"", "\"$CERT_FULLCHAIN_PATH\"");
    return fmt::format("--reloadcmd {}\n", quoted(fmt::format("{}", fmt::join(steps, " && "))));
}

}  // namespace fstore
