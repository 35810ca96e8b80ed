// fstore openssl-conf: the configuration with which OpenSSL finds the provider and the database.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "fstore/commands/commands.h"
#include "fstore/commands/common_options.h"
#include "fstore/terminal/json.h"
#include "lib/base/files.h"
#include "lib/pki/modules_folder.h"

namespace fstore {
namespace {

// The path as a value of openssl.cnf, where some characters mean something.
std::string valueOf(const std::string& path) {
    constexpr std::string_view kMeaning = "\\\"'`$#";
    std::string value;
    for (const char c : absolutePath(path)) {
        if (static_cast<unsigned char>(c) < ' ') {
            throw Failure(kInvalid, "a path with control characters cannot stand in openssl.cnf",
                          path);
        }
        if (kMeaning.find(c) != std::string_view::npos) {
            value += '\\';
        }
        value += c;
    }
    return value;
}

// What opens the database, as the provider's section has it.
std::string secretIn(const SecretOptions& secret) {
    if (secret.password.fd || secret.password.file == kStandardStream) {
        throw Failure(kUsage,
                      "a server needs a file: the password can be neither a descriptor nor the "
                      "standard input");
    }
    if (secret.keyFile) {
        return fmt::format("key-file = {}\n", valueOf(*secret.keyFile));
    }
    if (secret.password.file) {
        return fmt::format("password-file = {}\n", valueOf(*secret.password.file));
    }
    return "# without one of the next lines the environment says it, or the program asks\n"
           "#key-file = /etc/fstore/host.key\n"
           "#password-file = /etc/fstore/password\n";
}

// The folders beside this program that may have the provider: those of an installation under the
// same prefix, which may have OpenSSL's own layout.
std::vector<std::string> foldersBeside(const std::string& openssls) {
    std::string prefix = thisProgram();  // "PREFIX/bin/fstore"
    for (int i = 0; i < 2; ++i) {
        prefix.resize(prefix.rfind('/') == std::string::npos ? 0 : prefix.rfind('/'));
    }
    std::vector<std::string> folders{prefix + "/lib/ossl-modules", prefix + "/lib64/ossl-modules"};
    const std::size_t layout = openssls.find("/lib");
    if (layout != std::string::npos) {
        folders.insert(folders.begin(), prefix + openssls.substr(layout));
    }
    return folders;
}

// Where OpenSSL would not find the provider, the line that says where it is.
std::string moduleLine(Output& output) {
    constexpr const char* kFile = "/fstore.so";
    const std::string openssls = modulesFolder();
    if (exists(openssls + kFile)) {
        return {};
    }
    for (const std::string& folder : foldersBeside(openssls)) {
        if (exists(folder + kFile)) {
            return fmt::format("module = {}\n", valueOf(folder + kFile));
        }
    }
    output.warn(fmt::format(
        "the provider, fstore.so, is not in {}, where OpenSSL looks; install it, or add a line "
        "\"module = /its/path\" below [fstore_sect]",
        openssls));
    return {};
}

std::string configuration(const Globals& globals, Output& output) {
    return fmt::format(
        "openssl_conf = openssl_init\n\n"
        "[openssl_init]\nproviders = provider_sect\n\n"
        "[provider_sect]\ndefault = default_sect\nfstore = fstore_sect\n\n"
        "[default_sect]\nactivate = 1\n\n"
        "[fstore_sect]\n{}activate = 1\ndir = {}\n{}",
        moduleLine(output), valueOf(globals.folder), secretIn(globals.secret));
}

Status runOpensslConf(Context& context) {
    warnWithoutDatabase(context.globals, context.output);
    const std::string text = configuration(context.globals, context.output);
    if (context.output.json()) {
        context.output.document({{"text", text}});
    } else {
        context.output.raw(text);
    }
    return kOk;
}

}  // namespace

void addOpensslConf(Cli& cli) {
    (void)cli.add("openssl-conf", "Print what openssl.cnf needs for the provider", runOpensslConf);
}

}  // namespace fstore
