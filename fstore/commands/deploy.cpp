// fstore deploy: the certificate chain and the key of a host, in the files of a server.
#include "lib/work/deploy.h"

#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/deploy_options.h"
#include "fstore/commands/record_json.h"
#include "fstore/terminal/json.h"
#include "os/command.h"

namespace fstore {
namespace {

struct Options : DeployOptions {
    bool force = false;
};

// Runs the command; why it failed, if it did.
std::optional<std::string> runReload(const std::vector<std::string>& words,
                                     const DeployOptions& options) {
    const std::string& shown = *options.reload;
    const os::CommandEnd end = os::runCommand(words, options.reloadSeconds);
    if (end.isLate) {
        return fmt::format(
            "`{}` did not end within {} seconds, and was killed; --reload-timeout gives it longer",
            shown, options.reloadSeconds);
    }
    if (end.error != 0) {
        return fmt::format("cannot run `{}`: {}", shown,
                           std::generic_category().message(end.error));
    }
    if (end.signal != 0) {
        return fmt::format("signal {} ended `{}`", end.signal, shown);
    }
    return end.exitCode == 0
               ? std::nullopt
               : std::optional(fmt::format("`{}` ended with exit code {}", shown, end.exitCode));
}

std::string sentenceOf(const std::string& certificate, const Deployed& done) {
    if (done.isLoadingDue) {
        return fmt::format(
            "{} is in place; whether the server has loaded it is not known, since an earlier "
            "deploy "
            "did not finish its reload: run deploy with --reload",
            certificate);
    }
    if (done.isReplaced) {
        return fmt::format("deployed {}", certificate);
    }
    return done.isLoaded ? fmt::format("{} was deployed, and is now loaded", certificate)
                         : fmt::format("{} is deployed already; nothing was done", certificate);
}

void report(const Pair& pair, const Deployed& done, Output& output) {
    output.note(sentenceOf(pair.certificate.address.print(), done));
    std::vector<std::string> files;
    for (const SwitchedFile& file : pair.files) {
        files.push_back(file.name);
    }
    output.document({{"records", Json::array({toJson(pair.certificate), toJson(pair.key)})},
                     {"files", Json::array(files)},
                     {"replaced", done.isReplaced},
                     {"reloaded", done.isLoaded},
                     {"reloadDue", done.isLoadingDue}});
}

Status runDeploy(const Options& options, Context& context) {
    const std::vector<std::string> words = reloadOf(options);
    const DeployRules rules = rulesOf(options);
    SwitchedFiles place(namesOf(rules), context.globals.lockSeconds);
    const Pair pair = withSecrets(context.database, Access::kRead,
                                  [&] { return pairFor(context.database, rules); });
    for (const Failure& failure : pair.leftOut) {
        context.output.warn(fmt::format("passed over: {}", failure.what()));
    }
    for (const std::string& warning : pair.warnings) {
        context.output.warn(warning);
    }
    Reload reload;
    if (!words.empty()) {
        forgetPasswords();  // it inherits the environment
        reload = [&] {
            context.output.detail(fmt::format("running `{}`", *options.reload));
            return runReload(words, options);
        };
    }
    const Present present = options.force ? Present::kAny : Present::kOwn;
    report(pair, deploy(place, pair.files, reload, present), context.output);
    return kOk;
}

}  // namespace

void addDeploy(Cli& cli) {
    const auto options = std::make_shared<Options>();
    Command& command =
        cli.add("deploy", "Put the certificate and key of a host where a server reads them",
                [options](Context& context) { return runDeploy(*options, context); });
    addDeployOptions(command, options.get());
    command.flag("-f,--force", &options->force,
                 "Replace a single file whatever is in it, not only what deploy wrote");
}

}  // namespace fstore
