// The pair that serves a host, in files of other programs: its certificate chain, and what stands
// for its key.
//
//     SwitchedFiles place(namesOf(rules), seconds);  // before the pair is chosen: the last one
//     wins const Pair pair = withSecrets(database, Access::kRead,
//                                   [&] { return pairFor(database, rules); });
//     const Deployed done = deploy(place, pair.files, reload);
//
// The reference is to the key's record, and not to a host: a program that loads it by itself,
// between an import and the deployment, still loads the key of the certificate beside it.
//
// For one thread. Failures throw.
#ifndef LIB_WORK_DEPLOY_H
#define LIB_WORK_DEPLOY_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lib/base/error.h"
#include "lib/base/switched_files.h"
#include "lib/database/database.h"
#include "lib/records/record_info.h"
#include "lib/work/uri.h"

namespace fstore {

// Absolute paths. Those that are the same are one file, with all that goes into it.
struct DeployRules {
    Selector selector;               // its type is kPair
    std::string chain;               // the certificate and its issuers
    std::optional<std::string> ref;  // a reference to the key
    std::optional<std::string> key;  // the key, not encrypted; not the file of the reference
    bool isPrivate = false;          // only the owner reads what has no secret, too
};

// The files, each once. Throws kUsage for rules without a ref or key, or with both in one file.
std::vector<std::string> namesOf(const DeployRules& rules);

struct Pair {
    RecordInfo certificate, key;
    std::vector<SwitchedFile> files;
    std::vector<Failure> leftOut;       // as of Selected
    std::vector<std::string> warnings;  // as of Selected
};

// A step of withSecrets(): asks for secrets as select(), and if the key itself is wanted. Throws
// what select() throws.
Pair pairFor(Database& database, const DeployRules& rules);

// Has programs load the files again; why that failed, if it did.
using Reload = std::function<std::optional<std::string>()>;

struct Deployed {
    bool isReplaced = false;  // the files are other ones than before
    bool isLoaded = false;    // `reload` ran
    bool isLoadingDue =
        false;  // one that was killed, or failed, had a reload, and this one has none
};

enum class Present {
    kOwn,  // a single file that is there is replaced if a deployment of this kind may have written
           // it: it is empty, or has the same kinds of PEM blocks and nothing else
    kAny
};

// Puts the files in place, and has them loaded. A deployment that was killed is finished by the
// next one, its reload by the next one that has any. `reload` may be empty.
//
//   kInvalid  something else is in the file; it stays
//   kForeign  they could not be loaded. Those from before are back and loaded again; if that failed
//             too, the next deployment has the files loaded whatever they are.
Deployed deploy(SwitchedFiles& place, const std::vector<SwitchedFile>& files, const Reload& reload,
                Present present = Present::kOwn);

}  // namespace fstore

#endif  // LIB_WORK_DEPLOY_H
