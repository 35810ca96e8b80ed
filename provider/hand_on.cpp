#include "provider/hand_on.h"

#include <openssl/core_names.h>
#include <openssl/params.h>

namespace provider {

int handOn(int type, const char* structure, std::span<const unsigned char> der,
           OSSL_CALLBACK* callback, void* argument) noexcept {
    // Parameters are also for writing; these are read.
    OSSL_PARAM parameters[4];
    OSSL_PARAM* next = parameters;
    *next++ = OSSL_PARAM_construct_int(OSSL_OBJECT_PARAM_TYPE, &type);
    if (structure != nullptr) {
        *next++ = OSSL_PARAM_construct_utf8_string(OSSL_OBJECT_PARAM_DATA_STRUCTURE,
                                                   const_cast<char*>(structure), 0);
    }
    *next++ = OSSL_PARAM_construct_octet_string(OSSL_OBJECT_PARAM_DATA,
                                                const_cast<unsigned char*>(der.data()), der.size());
    *next = OSSL_PARAM_construct_end();
    return callback(parameters, argument);
}

}  // namespace provider
