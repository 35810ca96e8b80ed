// What OpenSSL calls first, and the table that it gets.
#include <openssl/core_names.h>
#include <openssl/params.h>

#include "provider/provider.h"

#ifndef FSTORE_VERSION
#error "FSTORE_VERSION is the version of the project"
#endif

namespace provider {
namespace {

void tearDown(void* context) {
    delete static_cast<Provider*>(context);
}

const OSSL_PARAM* gettable(void* /*context*/) {
    static const OSSL_PARAM kParameters[] = {
        OSSL_PARAM_utf8_ptr(OSSL_PROV_PARAM_NAME, nullptr, 0),
        OSSL_PARAM_utf8_ptr(OSSL_PROV_PARAM_VERSION, nullptr, 0),
        OSSL_PARAM_utf8_ptr(OSSL_PROV_PARAM_BUILDINFO, nullptr, 0),
        OSSL_PARAM_int(OSSL_PROV_PARAM_STATUS, nullptr), OSSL_PARAM_END};
    return kParameters;
}

bool answer(OSSL_PARAM* parameters, const char* name, const char* text) {
    OSSL_PARAM* const wanted = OSSL_PARAM_locate(parameters, name);
    return wanted == nullptr || OSSL_PARAM_set_utf8_ptr(wanted, text) == 1;
}

int getParameters(void* /*context*/, OSSL_PARAM* parameters) {
    OSSL_PARAM* const status = OSSL_PARAM_locate(parameters, OSSL_PROV_PARAM_STATUS);
    const bool done = answer(parameters, OSSL_PROV_PARAM_NAME, "filestore provider") &&
                      answer(parameters, OSSL_PROV_PARAM_VERSION, FSTORE_VERSION) &&
                      answer(parameters, OSSL_PROV_PARAM_BUILDINFO, FSTORE_VERSION) &&
                      (status == nullptr || OSSL_PARAM_set_int(status, 1) == 1);
    return done ? 1 : 0;
}

const OSSL_ALGORITHM* query(void* /*context*/, int operation, int* noCache) {
    *noCache = 0;
    switch (operation) {
        case OSSL_OP_STORE:
            return kStores;
        case OSSL_OP_DECODER:
            return kDecoders;
        default:
            return nullptr;
    }
}

const OSSL_ITEM* reasons(void* /*context*/) {
    return reasonStrings();
}

const OSSL_DISPATCH kFunctions[] = {
    {OSSL_FUNC_PROVIDER_TEARDOWN, reinterpret_cast<void (*)()>(tearDown)},
    {OSSL_FUNC_PROVIDER_GETTABLE_PARAMS, reinterpret_cast<void (*)()>(gettable)},
    {OSSL_FUNC_PROVIDER_GET_PARAMS, reinterpret_cast<void (*)()>(getParameters)},
    {OSSL_FUNC_PROVIDER_QUERY_OPERATION, reinterpret_cast<void (*)()>(query)},
    {OSSL_FUNC_PROVIDER_GET_REASON_STRINGS, reinterpret_cast<void (*)()>(reasons)},
    {0, nullptr}};

}  // namespace
}  // namespace provider

// By this name, and as the only one, it is found. The table lives as long as the module.
extern "C" __attribute__((visibility("default"))) int OSSL_provider_init(
    const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* in, const OSSL_DISPATCH** out,
    void** context) {
    try {
        *context = new provider::Provider(handle, in);
        *out = provider::kFunctions;
        return 1;
    } catch (...) {
        return 0;  // without its functions, there is nowhere to report to
    }
}
