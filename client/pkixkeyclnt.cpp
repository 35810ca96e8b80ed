#include "client/pkixkeyclnt.h"

constinit Tuint32ID PKIXKeyServiceID{0x3f0008};
aPkixKeyClnt pkixKeyClnt;

TKey* aPkixKeyClnt::createTKey() {
    return call<TKey*>(nullptr, [](TPkixKeyService& srv) { return srv.createTKey(); });
}

TKey* aPkixKeyClnt::createTKey(TKey::key_type_t type) {
    return call<TKey*>(nullptr, [=](TPkixKeyService& srv) { return srv.createTKey(type); });
}

TKey* aPkixKeyClnt::createTKey(TKey::key_type_t type, const unsigned char* data, unsigned int len) {
    return call<TKey*>(nullptr,
                       [=](TPkixKeyService& srv) { return srv.createTKey(type, data, len); });
}
