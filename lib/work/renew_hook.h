// What the programs that renew certificates run afterwards: a script that imports what they have,
// and deploys it.
//
// Any thread may call it.
#ifndef LIB_WORK_RENEW_HOOK_H
#define LIB_WORK_RENEW_HOOK_H

#include <string>
#include <vector>

namespace fstore {

enum class RenewalClient {
    kCertbot,     // an executable for its folder of deploy hooks, which finds $RENEWED_LINEAGE
    kDehydrated,  // its hook script, with "deploy_cert" and the files as arguments
    kAcmeSh       // a --reloadcmd, which finds $CERT_KEY_PATH and $CERT_FULLCHAIN_PATH
};

struct HookRules {
    RenewalClient client;
    std::vector<std::string> fstore;  // the program with its global options
    std::vector<std::string> deploy;  // the arguments of `deploy`
    // The arguments that name what is deployed to other commands, "--for" and so on: if there are
    // some, the renewed key's file is emptied once its certificate is the deployed one.
    std::vector<std::string> emptyKeyOf;
};

// The script, or for kAcmeSh one line for its command.
std::string renewHook(const HookRules& rules);

}  // namespace fstore

#endif  // LIB_WORK_RENEW_HOOK_H
