// DECODER: the PEM block of a reference, for the DER of what it refers to. OpenSSL's own decoders
// make a key of that.
#include <string>

#include "provider/hand_on.h"
#include "provider/provider.h"
#include "provider/reference.h"

namespace provider {
namespace {

constexpr int kLeaveToOthers = 1;
constexpr int kFailed = 0;

bool asksFor(int selection, int part) {
    return (selection & part) != 0;
}

// The entry that the program reads a reference for; null when that is another one's business: who
// looks for a key in a file passes over certificates.
const Entry* wantedOf(const Found& found, int selection) {
    const bool isPrivate = asksFor(selection, OSSL_KEYMGMT_SELECT_PRIVATE_KEY);
    const bool isKey = isPrivate || asksFor(selection, OSSL_KEYMGMT_SELECT_PUBLIC_KEY);
    for (const Entry& entry : found.entries) {
        const bool hasKey = entry.kind == FILESTORE_PRIVATE_KEY ||
                            (entry.kind == FILESTORE_CERTIFICATE && !isPrivate);
        if (!isKey || hasKey) {
            return &entry;
        }
    }
    return nullptr;
}

int decode(Provider& provider, OSSL_CORE_BIO* in, int selection, OSSL_CALLBACK* callback,
           void* argument, const Asking& asking) {
    const std::optional<std::string> uri = readReference(provider.core(), in);
    if (!uri) {
        return kLeaveToOthers;
    }
    Session session(provider.settings());
    const Found found = session.find(*uri, asking);
    if (found.kind == FILESTORE_URI_FOLDER) {
        throw Failure(Reason::kBadReference, *uri + " is a folder; a reference is to one record");
    }
    const Entry* const entry = wantedOf(found, selection);
    if (entry == nullptr) {
        return kLeaveToOthers;
    }
    const Object object = session.read(entry->address, asking);
    if (asksFor(selection, OSSL_KEYMGMT_SELECT_PUBLIC_KEY) &&
        !asksFor(selection, OSSL_KEYMGMT_SELECT_PRIVATE_KEY)) {
        const Bytes key = publicKeyOf(object, provider.publicKeys());
        return handOn(OSSL_OBJECT_PKEY, "SubjectPublicKeyInfo", key, callback, argument);
    }
    switch (object.kind()) {
        case FILESTORE_PRIVATE_KEY:
            return handOn(OSSL_OBJECT_PKEY, "PrivateKeyInfo", object.der(), callback, argument);
        case FILESTORE_CERTIFICATE:
            return handOn(OSSL_OBJECT_CERT, "Certificate", object.der(), callback, argument);
        default:
            return handOn(OSSL_OBJECT_CRL, "CertificateList", object.der(), callback, argument);
    }
}

void* newContext(void* provider) {
    return provider;
}

void freeContext(void* /*provider*/) {}

int decodeReference(void* context, OSSL_CORE_BIO* in, int selection, OSSL_CALLBACK* callback,
                    void* argument, OSSL_PASSPHRASE_CALLBACK* ask, void* askArgument) {
    Provider& provider = *static_cast<Provider*>(context);
    return reporting(provider.core(), kFailed, [&] {
        return decode(provider, in, selection, callback, argument, {ask, askArgument});
    });
}

const OSSL_DISPATCH kFunctions[] = {
    {OSSL_FUNC_DECODER_NEWCTX, reinterpret_cast<void (*)()>(newContext)},
    {OSSL_FUNC_DECODER_FREECTX, reinterpret_cast<void (*)()>(freeContext)},
    {OSSL_FUNC_DECODER_DECODE, reinterpret_cast<void (*)()>(decodeReference)},
    {0, nullptr}};

}  // namespace

const OSSL_ALGORITHM kDecoders[] = {
    {"DER", "provider=fstore,input=pem", kFunctions, "filestore references"},
    {nullptr, nullptr, nullptr, nullptr}};

}  // namespace provider
