// fstore renew-hook: what certbot, dehydrated or acme.sh run when they have renewed a certificate.
#include "lib/work/renew_hook.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/commands/deploy_options.h"
#include "fstore/terminal/json.h"
#include "lib/base/files.h"
#include "lib/base/switched_files.h"

namespace fstore {
namespace {

struct RenewHookOptions {
    RenewalClient client = RenewalClient::kCertbot;
    DeployOptions deploy;
    bool emptyKey = false;
    std::string file{kStandardStream};
    bool force = false;
};

std::vector<std::string> fstoreOf(const Globals& globals) {
    // Programs that renew run with a PATH of their own.
    std::vector<std::string> words{thisProgram(), "--quiet", "--no-input", "--dir",
                                   absolutePath(globals.folder)};
    const PasswordOptions& password = globals.secret.password;
    const auto& keyFile = globals.secret.keyFile;
    if (password.fd || password.file == kStandardStream) {
        throw Failure(kUsage,
                      "a hook needs a file: the password can be neither a descriptor nor the "
                      "standard input");
    }
    if (keyFile) {
        words.insert(words.end(), {"--key-file", absolutePath(*keyFile)});
    } else if (password.file) {
        words.insert(words.end(), {"--password-file", absolutePath(*password.file)});
    }
    return words;
}

std::vector<std::string> argumentsOf(const DeployOptions& options) {
    (void)reloadOf(options);  // what it refuses, the hook should not find out
    const DeployRules rules = rulesOf(options);
    SwitchedFiles::check(namesOf(rules));
    std::vector<std::string> words{options.selector, "--chain", rules.chain};
    for (const auto& [name, value] : {std::pair("--ref", rules.ref), std::pair("--key", rules.key),
                                      std::pair("--reload", options.reload)}) {
        if (value) {
            words.insert(words.end(), {name, *value});
        }
    }
    if (options.isPrivate) {
        words.emplace_back("--private");
    }
    if (options.inShell) {
        words.emplace_back("--shell");
    }
    if (options.reloadSeconds != kReloadSeconds) {
        words.insert(words.end(), {"--reload-timeout", fmt::format("{}", options.reloadSeconds)});
    }
    return words;
}

// What is deployed, as `show` takes it.
std::vector<std::string> choiceOf(const DeployOptions& options) {
    const Selector selector = rulesOf(options).selector;
    std::vector<std::string> words{"--for", selector.name};
    if (!selector.algorithm.empty()) {
        words.insert(words.end(), {"--alg", selector.algorithm});
    }
    return words;
}

Status runRenewHook(const RenewHookOptions& options, Context& context) {
    warnWithoutDatabase(context.globals, context.output);
    const std::string text =
        renewHook({options.client, fstoreOf(context.globals), argumentsOf(options.deploy),
                   options.emptyKey ? choiceOf(options.deploy) : std::vector<std::string>{}});
    OutputFile file(options.file, options.force);
    if (context.output.json() && file.isStandardOutput()) {
        context.output.document({{"text", text}});
        return kOk;
    }
    if (options.client != RenewalClient::kAcmeSh) {
        file.allow(kExecutableByAll);
    }
    file.write({reinterpret_cast<const unsigned char*>(text.data()), text.size()});
    file.commit();
    context.output.document({{"file", options.file}});
    return kOk;
}

}  // namespace

void addRenewHook(Cli& cli) {
    const auto options = std::make_shared<RenewHookOptions>();
    Command& command =
        cli.add("renew-hook", "Write what certbot, dehydrated or acme.sh run after a renewal",
                [options](Context& context) { return runRenewHook(*options, context); });
    command.argument("CLIENT",
                     Choice(&options->client, {{"certbot", RenewalClient::kCertbot},
                                               {"dehydrated", RenewalClient::kDehydrated},
                                               {"acme.sh", RenewalClient::kAcmeSh}}),
                     "certbot, dehydrated or acme.sh");
    addDeployOptions(command, &options->deploy);
    command.flag("--empty-key", &options->emptyKey,
                 "Empty the file of the renewed key once its certificate is the deployed one");
    command.option("-o,--output", "FILE", &options->file, "The file, executable by all");
    addForce(command, &options->force);
}

}  // namespace fstore
