#include "lib/pki/modules_folder.h"

#include <openssl/crypto.h>

namespace fstore {

std::string modulesFolder() {
    const char* const folder = OPENSSL_info(OPENSSL_INFO_MODULES_DIR);
    return folder != nullptr ? folder : "";
}

}  // namespace fstore
