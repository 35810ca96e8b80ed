// Names of holders as users write them.
//
// Any thread may call any of these. Failures throw.
#ifndef LIB_PKI_DISTINGUISHED_NAME_H
#define LIB_PKI_DISTINGUISHED_NAME_H

#include <string_view>

#include "lib/pki/ossl.h"

namespace fstore {

// The name that a text like "CN=www.example.com,O=Example" stands for, as RFC 4514 and ls write
// it: the last part first, "+" between the values of one part, and a backslash in front of
// , + " \ < > ; = # and of a blank at an end, or of two hexadecimal digits. A value that begins
// with
// "#" is that of a string in DER, in hexadecimal digits. The empty text is the empty name. Throws
// kInvalid for anything else, for control characters and for what the standards of names do not
// allow.
ossl::Name distinguishedName(std::string_view text);

}  // namespace fstore

#endif  // LIB_PKI_DISTINGUISHED_NAME_H
