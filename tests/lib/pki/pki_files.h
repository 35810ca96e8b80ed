// The files of make_pki.sh, made once for all tests of a program, and what the openssl
// program says about them.
#ifndef TESTS_LIB_PKI_PKI_FILES_H
#define TESTS_LIB_PKI_PKI_FILES_H

#include <map>
#include <string>

#include "cmn/secret_bytes.h"
#include "tests/support/temp_dir.h"

namespace fstore {

class PkiFiles {
public:
    static const PkiFiles& get();

    std::string path(const std::string& name) const { return folder_ / name; }
    SecretBytes bytes(const std::string& name) const;
    std::string text(const std::string& name) const { return support::readFile(path(name)); }

    // Of "server.said": "subject", "issuer", "serial", "sha256 Fingerprint", "notBefore",
    // "X509v3 Subject Key Identifier" and so on; digits lower-case without colons,
    // times as RFC 3339.
    std::map<std::string, std::string> said(const std::string& name) const;

private:
    PkiFiles();
    support::TempDir folder_;
};

SecretBytes bytesOf(const std::string& text);

}  // namespace fstore

#endif  // TESTS_LIB_PKI_PKI_FILES_H
