// Java's own keystores (JKS, JCEKS). Their forms are Java's secret, so its keytool, where it is
// installed, makes a PKCS#12 file of them.
//
// For a program's main thread, while there is no other.
#ifndef LIB_WORK_JAVA_KEYSTORE_H
#define LIB_WORK_JAVA_KEYSTORE_H

#include <span>
#include <vector>

#include "lib/pki/part.h"

namespace fstore {

// How long keytool may take for a keystore.
inline constexpr double kKeytoolSeconds = 60;

// As decodePki(), but for a keystore of Java's own, too, where keytool is in PATH and there is a
// file system in memory: neither the keys nor a password touch a disk, and no password is in the
// arguments or the environment of keytool. Without keytool the one part is the failure that
// decodePki() has for such a file.
std::vector<PkiPart> decodeWithKeytool(std::span<const unsigned char> bytes,
                                       const InputPassword& password,
                                       double seconds = kKeytoolSeconds);

}  // namespace fstore

#endif  // LIB_WORK_JAVA_KEYSTORE_H
