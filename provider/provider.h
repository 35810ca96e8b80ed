// The one object behind all functions of the provider, one a library context that loads it.
//
// Any thread may use it: nothing of it changes but the context for public keys, which is made once.
#ifndef PROVIDER_PROVIDER_H
#define PROVIDER_PROVIDER_H

#include <mutex>

#include <openssl/core.h>
#include <openssl/core_dispatch.h>
#include <openssl/provider.h>

#include "provider/core.h"
#include "provider/objects.h"
#include "provider/settings.h"

namespace provider {

class Provider {
public:
    Provider(const OSSL_CORE_HANDLE* handle, const OSSL_DISPATCH* functions)
        : core_(handle, functions), settings_(settingsOf(core_)) {}

    const Core& core() const noexcept { return core_; }
    const Settings& settings() const noexcept { return settings_; }

    // A library context with OpenSSL's own provider, which is loaded with the first call.
    OSSL_LIB_CTX* publicKeys() {
        std::call_once(once_, [this] {
            context_.reset(OSSL_LIB_CTX_new());
            if (context_ != nullptr) {
                default_.reset(OSSL_PROVIDER_load(context_.get(), "default"));
            }
        });
        return context_.get();
    }

private:
    Core core_;
    Settings settings_;
    std::once_flag once_;
    LibraryContext context_;
    ossl::Owner<OSSL_PROVIDER, OSSL_PROVIDER_unload> default_;  // goes before its context
};

// What OpenSSL is told of each kind of operation; both end with an empty entry.
extern const OSSL_ALGORITHM kStores[];
extern const OSSL_ALGORITHM kDecoders[];

}  // namespace provider

#endif  // PROVIDER_PROVIDER_H
