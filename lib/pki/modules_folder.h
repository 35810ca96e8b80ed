// Where OpenSSL looks for its modules, and so for providers.
#ifndef LIB_PKI_MODULES_FOLDER_H
#define LIB_PKI_MODULES_FOLDER_H

#include <string>

namespace fstore {

// As it was built; the environment of another program may name another folder. Empty if it has
// none. Any thread may call it.
std::string modulesFolder();

}  // namespace fstore

#endif  // LIB_PKI_MODULES_FOLDER_H
