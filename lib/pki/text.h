// The contents of certificates and the like, as text for attributes and people.
//
// All of it is valid UTF-8 without control characters and can be a text attribute: no line
// feed, no leading blank. Hostile structures give odd texts, never failures.
// Any thread may call any of these.
#ifndef LIB_PKI_TEXT_H
#define LIB_PKI_TEXT_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace fstore {

// The text with what an attribute cannot hold escaped as in RFC 4514: a leading blank as
// "\ ", a backslash as "\\", control characters and bytes that are not UTF-8 as "\0A".
std::string attributeText(std::string_view text);

// A name as RFC 4514 writes it, the last part first: "CN=server,O=Example".
std::string nameText(const X509_NAME* name);

// What people call the holder of a name: its common name, or else its organisational unit or
// organisation; empty without any.
std::string titleOf(const X509_NAME* name);

// "2030-01-31T23:59:59Z"; empty for what is not a time.
std::string timeText(const ASN1_TIME* time);

// An identifier as numbers: "1.2.840.10045.2.1".
std::string identifierText(const ASN1_OBJECT* identifier);

// "RSA-2048", "EC-P-256", "Ed25519"; the dotted identifier of an algorithm that
// OpenSSL does not know.
std::string keyAlgorithmText(const EVP_PKEY* key);
std::string keyAlgorithmText(X509_PUBKEY* key);
std::string keyAlgorithmIdentifier(X509_PUBKEY* key);

// "DNS:example.com", "IP:192.0.2.1", "email:...", "URI:...", and the rarer kinds.
std::vector<std::string> altNameTexts(const GENERAL_NAMES* names);

}  // namespace fstore

#endif  // LIB_PKI_TEXT_H
