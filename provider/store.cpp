// STORE: a URI, and the objects behind it one after the other. A folder gives the URIs of its
// records; with something to search for, the objects that are found.
#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/store.h>
#include <strings.h>

#include "provider/hand_on.h"
#include "provider/provider.h"
#include "provider/reference.h"

namespace provider {
namespace {

constexpr std::string_view kScheme = "fstore:";
constexpr Asking kNobody{};

// "fstore:///keys/a%20b" of "keys/a b".
std::string uriOf(const std::string& address) {
    constexpr std::string_view kPlain = "-._~/", kDigits = "0123456789ABCDEF";
    std::string uri = "fstore:///";
    for (const char c : address) {
        const bool isPlain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                             (c >= '0' && c <= '9') || kPlain.find(c) != std::string_view::npos;
        if (isPlain) {
            uri += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            uri += {'%', kDigits[byte >> 4], kDigits[byte & 0xF]};
        }
    }
    return uri;
}

class Store {
public:
    Store(Provider& provider, std::string uri)
        : provider_(provider), uri_(std::move(uri)), session_(provider.settings()) {
        try {
            begin(kNobody);
        } catch (const Failure& failure) {
            if (failure.reason() != Reason::kNoPassword) {
                throw;
            }
            // Who opens a URI cannot be asked yet: the first load begins.
        }
    }

    const Core& core() const noexcept { return provider_.core(); }
    bool isAtEnd() const noexcept {
        return hasFailed_ || (hasBegun_ && next_ >= found_.entries.size());
    }
    void fail() noexcept { hasFailed_ = true; }

    bool set(const OSSL_PARAM* parameters) {
        const OSSL_PARAM* const expect =
            OSSL_PARAM_locate_const(parameters, OSSL_STORE_PARAM_EXPECT);
        return (expect == nullptr || OSSL_PARAM_get_int(expect, &expected_) == 1) &&
               search_.set(parameters);
    }

    // Hands on the next object that is wanted; 0 when there is none.
    int load(OSSL_CALLBACK* callback, void* argument, const Asking& asking) {
        if (!hasBegun_) {
            begin(asking);
        }
        while (next_ < found_.entries.size()) {
            const Entry& entry = found_.entries[next_++];
            if (!isWanted(entry)) {
                continue;
            }
            if (isListing()) {
                return handOnName(entry, callback, argument);
            }
            const Object object = session_.read(entry.address, asking);
            if (search_.isEmpty() || search_.isByAlias() || search_.matches(object)) {
                return handOnObject(object, callback, argument);
            }
        }
        return 0;
    }

private:
    void begin(const Asking& asking) {
        found_ = session_.find(uri_, asking);
        hasBegun_ = true;
    }

    bool isFolder() const noexcept { return found_.kind == FILESTORE_URI_FOLDER; }
    bool isListing() const noexcept { return isFolder() && search_.isEmpty(); }

    bool isWanted(const Entry& entry) const {
        if (!isLoadable(entry)) {
            return !isFolder();  // reading it says why it cannot be loaded
        }
        if (!search_.isEmpty() && (search_.isByAlias() ? !search_.matchesAlias(entry)
                                                       : entry.kind == FILESTORE_PRIVATE_KEY)) {
            return false;
        }
        switch (expected_) {
            case OSSL_STORE_INFO_PKEY:
                return entry.kind == FILESTORE_PRIVATE_KEY;
            case OSSL_STORE_INFO_CERT:
                return entry.kind == FILESTORE_CERTIFICATE;
            case OSSL_STORE_INFO_CRL:
                return entry.kind == FILESTORE_CRL;
            case OSSL_STORE_INFO_PUBKEY:
                return &entry == publicEntry() || (isFolder() && hasPublicKey(entry));
            default:
                return true;
        }
    }

    static bool isLoadable(const Entry& entry) {
        return entry.kind == FILESTORE_CRL || hasPublicKey(entry);
    }

    static bool hasPublicKey(const Entry& entry) {
        return entry.kind == FILESTORE_PRIVATE_KEY || entry.kind == FILESTORE_CERTIFICATE;
    }

    // The one for whose public key the URI stands: a certificate needs no password.
    const Entry* publicEntry() const {
        const auto& entries = found_.entries;
        const auto certificate = std::ranges::find(
            entries, static_cast<std::uint32_t>(FILESTORE_CERTIFICATE), &Entry::kind);
        if (certificate != entries.end()) {
            return &*certificate;
        }
        return !entries.empty() && hasPublicKey(entries.front()) ? &entries.front() : nullptr;
    }

    static int handOnName(const Entry& entry, OSSL_CALLBACK* callback, void* argument) {
        std::string uri = uriOf(entry.address);
        std::string description = entry.label.empty() ? entry.subject : entry.label;
        int type = OSSL_OBJECT_NAME;
        OSSL_PARAM parameters[] = {
            OSSL_PARAM_construct_int(OSSL_OBJECT_PARAM_TYPE, &type),
            OSSL_PARAM_construct_utf8_string(OSSL_OBJECT_PARAM_DATA, uri.data(), 0),
            OSSL_PARAM_construct_utf8_string(OSSL_OBJECT_PARAM_DESC, description.data(), 0),
            OSSL_PARAM_construct_end()};
        return callback(parameters, argument);
    }

    int handOnObject(const Object& object, OSSL_CALLBACK* callback, void* argument) {
        if (expected_ == OSSL_STORE_INFO_PUBKEY) {
            const Bytes key = publicKeyOf(object, provider_.publicKeys());
            return handOn(OSSL_OBJECT_PKEY, "SubjectPublicKeyInfo", key, callback, argument);
        }
        switch (object.kind()) {
            case FILESTORE_PRIVATE_KEY:
                return handOn(OSSL_OBJECT_PKEY, "PrivateKeyInfo", object.der(), callback, argument);
            case FILESTORE_CERTIFICATE:
                return handOn(OSSL_OBJECT_CERT, nullptr, object.der(), callback, argument);
            default:
                return handOn(OSSL_OBJECT_CRL, nullptr, object.der(), callback, argument);
        }
    }

    Provider& provider_;
    std::string uri_;
    Session session_;
    bool hasBegun_ = false, hasFailed_ = false;
    Found found_;
    std::size_t next_ = 0;
    int expected_ = 0;  // an OSSL_STORE_INFO_ number, or 0 for any
    Search search_;
};

Store& storeOf(void* context) {
    return *static_cast<Store*>(context);
}

void* openWith(Provider& provider, const char* uri, const OSSL_PARAM* parameters) {
    if (strncasecmp(uri, kScheme.data(), kScheme.size()) != 0) {
        return nullptr;  // another loader's
    }
    return reporting(provider.core(), static_cast<void*>(nullptr), [&]() -> void* {
        auto store = std::make_unique<Store>(provider, uri);
        return parameters == nullptr || store->set(parameters) ? store.release() : nullptr;
    });
}

void* open(void* context, const char* uri) {
    return openWith(*static_cast<Provider*>(context), uri, nullptr);
}

// The one way in of OpenSSL 3.2 and later, which sets the parameters with it. Who can be asked for
// a password is told again by each load, and asked there.
void* openEx(void* context, const char* uri, const OSSL_PARAM* parameters,
             OSSL_PASSPHRASE_CALLBACK* /*ask*/, void* /*askArgument*/) {
    return openWith(*static_cast<Provider*>(context), uri, parameters);
}

// A reference that the program has open.
void* attach(void* context, OSSL_CORE_BIO* in) {
    Provider& provider = *static_cast<Provider*>(context);
    return reporting(provider.core(), static_cast<void*>(nullptr), [&]() -> void* {
        const std::optional<std::string> uri = readReference(provider.core(), in);
        return uri ? new Store(provider, *uri) : nullptr;
    });
}

const OSSL_PARAM* settable(void* /*context*/) {
    static const OSSL_PARAM kParameters[] = {
        OSSL_PARAM_int(OSSL_STORE_PARAM_EXPECT, nullptr),
        OSSL_PARAM_octet_string(OSSL_STORE_PARAM_SUBJECT, nullptr, 0),
        OSSL_PARAM_octet_string(OSSL_STORE_PARAM_ISSUER, nullptr, 0),
        OSSL_PARAM_BN(OSSL_STORE_PARAM_SERIAL, nullptr, 0),
        OSSL_PARAM_utf8_string(OSSL_STORE_PARAM_DIGEST, nullptr, 0),
        OSSL_PARAM_octet_string(OSSL_STORE_PARAM_FINGERPRINT, nullptr, 0),
        OSSL_PARAM_utf8_string(OSSL_STORE_PARAM_ALIAS, nullptr, 0),
        OSSL_PARAM_END};
    return kParameters;
}

int set(void* context, const OSSL_PARAM* parameters) {
    Store& store = storeOf(context);
    return reporting(store.core(), 0, [&] { return store.set(parameters) ? 1 : 0; });
}

int load(void* context, OSSL_CALLBACK* callback, void* argument, OSSL_PASSPHRASE_CALLBACK* ask,
         void* askArgument) {
    Store& store = storeOf(context);
    return reporting(store.core(), 0, [&] {
        try {
            return store.load(callback, argument, {ask, askArgument});
        } catch (...) {
            store.fail();  // the next try would fail as this one
            throw;
        }
    });
}

int isAtEnd(void* context) {
    return storeOf(context).isAtEnd() ? 1 : 0;
}

int close(void* context) {
    delete &storeOf(context);
    return 1;
}

// The headers of 3.0 do not name it, and its core passes over a number that it does not know.
constexpr int kStoreOpenEx = 10;
#ifdef OSSL_FUNC_STORE_OPEN_EX
static_assert(kStoreOpenEx == OSSL_FUNC_STORE_OPEN_EX);
#endif

const OSSL_DISPATCH kFunctions[] = {
    {OSSL_FUNC_STORE_OPEN, reinterpret_cast<void (*)()>(open)},
    {kStoreOpenEx, reinterpret_cast<void (*)()>(openEx)},
    {OSSL_FUNC_STORE_ATTACH, reinterpret_cast<void (*)()>(attach)},
    {OSSL_FUNC_STORE_SETTABLE_CTX_PARAMS, reinterpret_cast<void (*)()>(settable)},
    {OSSL_FUNC_STORE_SET_CTX_PARAMS, reinterpret_cast<void (*)()>(set)},
    {OSSL_FUNC_STORE_LOAD, reinterpret_cast<void (*)()>(load)},
    {OSSL_FUNC_STORE_EOF, reinterpret_cast<void (*)()>(isAtEnd)},
    {OSSL_FUNC_STORE_CLOSE, reinterpret_cast<void (*)()>(close)},
    {0, nullptr}};

}  // namespace

const OSSL_ALGORITHM kStores[] = {{"fstore", "provider=fstore", kFunctions, "filestore databases"},
                                  {nullptr, nullptr, nullptr, nullptr}};

}  // namespace provider
