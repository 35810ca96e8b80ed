#include "client/pkcs5C.h"

constinit Tuint32ID pkcs5ID{67};
PKCS5 pkcs5srv;

namespace {

// A new object of the service, or null. `name` decides what T is.
template <class T>
T* create(PKCS5_Interface::objectName_t name) {
    return static_cast<T*>(pkcs5srv.createObject(name));
}

}  // namespace

CMN_GuardedRef* PKCS5::createObject(PKCS5_Interface::objectName_t name) {
    return forward(&PKCS5_Interface::createObject, nullptr, name);
}

mmPBES::mmPBES(PBES::pbes_type t) : mmPBES(static_cast<PBES*>(nullptr)) {
    switch (t) {
        case PBES::kPbkdf2:
            m_ref = create<PBES>(PKCS5_Interface::kPbes0);
            break;
        case PBES::kPkcs12:
            m_ref = create<PBES>(PKCS5_Interface::kPbes1);
            break;
    }
}

mmPBES::mmPBES(PBES* object) : CMN_ObjectStub<PBES>(object, &pkcs5srv) {}

// The statuses of the four are not lost: the object keeps the last one for error().
mmPBES& mmPBES::operator<<(PBES::param selector) {
    (void)call(kNoObject, [=](PBES& pbes) { return pbes.select(selector); });
    return *this;
}

mmPBES& mmPBES::operator<<(const aBuf& bytes) {
    (void)call(kNoObject, [&](PBES& pbes) { return pbes.supply(bytes.target()); });
    return *this;
}

mmPBES& mmPBES::operator<<(pki_alg_t alg) {
    (void)call(kNoObject, [=](PBES& pbes) { return pbes.supply(alg); });
    return *this;
}

mmPBES& mmPBES::operator<<(unsigned int number) {
    (void)call(kNoObject, [=](PBES& pbes) { return pbes.supply(number); });
    return *this;
}

Status mmPBES::setKey(const aKey& k) {
    return forward(&PBES::setKey, kNoObject, k.target());
}

aKey mmPBES::getKey() const {
    return aKey(forward(&PBES::getKey, nullptr));
}

aBuf mmPBES::encrypt(const aBuf& in) const {
    return aBuf(forward(&PBES::encrypt, nullptr, in.target()));
}

aBuf mmPBES::decrypt(const aBuf& in) const {
    return aBuf(forward(&PBES::decrypt, nullptr, in.target()));
}

Status mmPBES::error() const {
    return forward(&PBES::error, kNoObject);
}

aHashMap::aHashMap() : aHashMap(nullptr) {
    m_ref = create<HashMap>(PKCS5_Interface::kHashMap);
}

aHashMap::aHashMap(HashMap* object) : CMN_ObjectStub<HashMap>(object, &pkcs5srv) {}

aHashMapFull::aHashMapFull(HashMap* object) : aHashMap(object) {}

aHashMapFull::aHashMapFull(const aHashMap& other) : aHashMap(other) {}

Status aHashMapFull::add(const aBuf& key, const aBuf& value) {
    return forward(&HashMap::add, kNoObject, key.target(), value.target());
}

aBuf aHashMapFull::find(const aBuf& key) const {
    return aBuf(forward(&HashMap::find, nullptr, key.target()));
}

mmP12PBKDF::mmP12PBKDF() : mmP12PBKDF(nullptr) {
    m_ref = create<P12PBKDF>(PKCS5_Interface::kP12Pbkdf);
}

mmP12PBKDF::mmP12PBKDF(P12PBKDF* object) : CMN_ObjectStub<P12PBKDF>(object, &pkcs5srv) {}

mmP12PBKDF& mmP12PBKDF::operator<<(P12PBKDF::param selector) {
    (void)call(kNoObject, [=](P12PBKDF& kdf) { return kdf.select(selector); });
    return *this;
}

mmP12PBKDF& mmP12PBKDF::operator<<(const aBuf& bytes) {
    (void)call(kNoObject, [&](P12PBKDF& kdf) { return kdf.supply(bytes.target()); });
    return *this;
}

mmP12PBKDF& mmP12PBKDF::operator<<(pki_alg_t alg) {
    (void)call(kNoObject, [=](P12PBKDF& kdf) { return kdf.supply(alg); });
    return *this;
}

mmP12PBKDF& mmP12PBKDF::operator<<(unsigned int number) {
    (void)call(kNoObject, [=](P12PBKDF& kdf) { return kdf.supply(number); });
    return *this;
}

aKey mmP12PBKDF::getKey(P12PBKDF::target purpose) const {
    return aKey(forward(&P12PBKDF::getKey, nullptr, purpose));
}

Status mmP12PBKDF::error() const {
    return forward(&P12PBKDF::error, kNoObject);
}

Status mmP12PBKDF::setHashMap(const aHashMap& map) {
    return forward(&P12PBKDF::setHashMap, kNoObject, map.target());
}
