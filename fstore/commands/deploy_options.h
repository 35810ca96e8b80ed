// What is deployed, to where, and how it is loaded: the options of `deploy`, and of what writes
// down a deployment for later.
#ifndef FSTORE_COMMANDS_DEPLOY_OPTIONS_H
#define FSTORE_COMMANDS_DEPLOY_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "fstore/commands/command.h"
#include "lib/work/deploy.h"

namespace fstore {

inline constexpr double kReloadSeconds = 90;  // as long as systemd waits for a service

struct DeployOptions {
    std::string selector;
    std::string chain;
    std::optional<std::string> ref, key, reload;
    double reloadSeconds = kReloadSeconds;
    bool isPrivate = false;
    bool inShell = false;
};
void addDeployOptions(Command& command, DeployOptions* target);

// With absolute paths. Throws kUsage and kInvalid for what cannot be deployed.
DeployRules rulesOf(const DeployOptions& options);

// The program of --reload and its arguments; empty without one. Throws kUsage for what only a shell
// would understand, unless a shell is asked for.
std::vector<std::string> reloadOf(const DeployOptions& options);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_DEPLOY_OPTIONS_H
