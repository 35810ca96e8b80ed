// A program that knows the installed headers only, and holds the store to what they say:
// records, lists, the service, ciphers, buffers and keys. Prints "all as promised".
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <type_traits>

#include "client/cmn_abuf.h"
#include "client/crypto_coder_exp.h"
#include "client/file_store_exp.h"
#include "client/pkcs5C.h"
#include "client/pkixakey.h"
#include "client/s_filestoreC.h"
#include "host/store_host.h"

namespace {

constexpr unsigned int kNumber = 1, kBytes = 2, kString = 3, kText = 4;
constexpr unsigned int kNowhere = 0xFFFFFFFF;
constexpr unsigned int kId = 7;  // of attributes, ours to choose

int faults = 0;

template <class A, class B>
void equal(int line, const A& expected, const B& got) {
    if (std::common_type_t<A, B>(expected) != std::common_type_t<A, B>(got)) {
        std::printf("client.cpp:%d: not as promised\n", line);
        ++faults;
    }
}
#define EQUAL(expected, got) equal(__LINE__, expected, got)

const unsigned char* bytes(const char* text) {
    return reinterpret_cast<const unsigned char*>(text);
}

std::string body(const aFileStore& record) {
    return {reinterpret_cast<const char*>(record.getBody()), record.getBodySize()};
}

std::string contents(const aBuf& buf) {
    return {reinterpret_cast<const char*>(buf.datap()), buf.len()};
}

void withoutObject() {
    aFileStore none(static_cast<TFileStore*>(nullptr));
    EQUAL(kNoObject, none.setName("a"));
    EQUAL(kNoObject, none.read());
    EQUAL(0, none.isExist());
    EQUAL(kNowhere, none.findAttr(kBytes, kId, nullptr, 0));
    EQUAL(true, none.getName() == nullptr && none.getBody() == nullptr);
    aFileStoreList nothing(static_cast<TFileStoreList*>(nullptr));
    EQUAL(1U, nothing.isEmpty());
    EQUAL(true, nothing.getFirst().target() == nullptr);
    EQUAL(kNoObject, aBuf(static_cast<TBuf*>(nullptr)).set("a"));
}

void service(aFileStoreSrv& store) {
    EQUAL(kClosed, store.close());
    EQUAL(kOk, store.prepareDBFolders());
    EQUAL(kInvalid, store.checkPwd(nullptr));
    EQUAL(kWrongPassword, store.open("password"));
    EQUAL(0, store.isOpen());
    EQUAL(kOk, store.recrypt("", "password"));
    EQUAL(kOk, store.open("password"));
    EQUAL(kAlreadyOpen, store.open("password"));
    EQUAL(kWrongPassword, store.checkPwd(""));
}

void attributes() {
    aFileStore record;
    EQUAL(kInvalid, record.addAttr(kBytes, kId, nullptr, 0));
    EQUAL(kMalformed, record.addAttr(kNumber, kId, bytes("abc"), 3));
    EQUAL(kMalformed, record.addAttr(kText, kId, bytes("a\nb"), 3));
    EQUAL(kOk, record.addAttr(kString, kId, bytes("abc"), 1));
    EQUAL(4U, record.getAttrSize(0));
    EQUAL(kOk, record.setAttrFlag(0, 1));
    EQUAL(kOk, record.setAttr(kString, kId, bytes("b"), 1));
    EQUAL(1U, record.getAttrFlag(0));
    EQUAL(kEnd, record.setAttrFlag(1, 1));
    EQUAL(kInvalid, record.setAttrFlag(0, 2));
    EQUAL(kInvalid, record.removeAttr(1));
    EQUAL(0U, record.getAttrType(1));
    EQUAL(true, record.getAttr(1) == nullptr);
    EQUAL(0U, record.findAttr(kString, kId, bytes("b"), 2));
    EQUAL(kOk, record.removeAttrs());
    EQUAL(0U, record.getAttrCount());
}

void records(aFileStoreSrv& store) {
    aFileStore record;
    EQUAL(kMissing, record.read());
    EQUAL(kMissing, record.remove());
    EQUAL(kOk, record.setFolderName("./db/keys"));
    EQUAL(kOk, record.setFileName("alice.key.dsc"));
    EQUAL(std::string("alice.key"), record.getName());
    EQUAL(kMissing, record.read());
    EQUAL(kIo, record.remove());
    EQUAL(kInvalid, record.setBody(nullptr, 1));
    EQUAL(kOk, record.setBody(nullptr, 0));
    EQUAL(kIo, record.write());
    EQUAL(kOk, record.setBody(bytes("secret"), 6));
    EQUAL(kInvalid, record.setBodyFlag(2));
    EQUAL(kOk, record.setBodyFlag(1));
    EQUAL(kOk, record.addAttr(kBytes, kId, bytes("hidden"), 6));
    EQUAL(kOk, record.setAttrFlag(0, 1));
    EQUAL(kOk, record.write());

    EQUAL(kOk, store.close());
    aFileStore found;
    EQUAL(kOk, found.setFolderName("./db/keys"));
    EQUAL(kOk, found.setName("alice.key"));
    EQUAL(1, found.isExist());
    EQUAL(kOk, found.read());
    EQUAL(true, body(found) != "secret");
    EQUAL(kNotOpen, found.decrypt());
    EQUAL(kIo, found.write());
    EQUAL(kOk, aFileStoreExt(found).setLoginCheck(0));
    EQUAL(kIo, found.decrypt());
    EQUAL(kOk, store.open("password"));
    EQUAL(kOk, found.decrypt());
    EQUAL(std::string("secret"), body(found));
    EQUAL(0U, found.findAttr(kBytes, kId, bytes("hidden"), 6));

    aFileStore unnamed;
    EQUAL(kOk, unnamed.setFolderName("./db/settings"));
    EQUAL(kOk, unnamed.write());
    EQUAL(8U, std::strlen(unnamed.getName()));
    EQUAL(kOk, unnamed.remove());
    EQUAL(0, unnamed.isExist());
}

void lists() {
    aFileStore record;
    EQUAL(kOk, record.setFolderName("./db/settings"));
    for (const char* const name : {"one", "two", "three"}) {
        EQUAL(kOk, record.setName(name));
        EQUAL(kOk, record.write());
    }
    aFileStoreList list;
    EQUAL(kInvalid, list.readFromFolder(nullptr));
    EQUAL(kOk, list.readFromFolder("./db/settings"));
    EQUAL(kIo, list.readFromFolder("./nowhere"));
    EQUAL(0U, list.isEmpty());
    EQUAL(1U, list.isTail());
    std::set<std::string> names;
    for (aFileStore one = list.getFirst(); one.target() != nullptr; one = list.getNext()) {
        EQUAL(kOk, one.read());
        names.insert(one.getName());
    }
    EQUAL(3U, names.size());
    EQUAL(1U, names.count("three"));
    EQUAL(kEnd, list.remove(record));
    EQUAL(kOk, list.pushFront(record));
    EQUAL(record.getUniqueID(), list.getFirst().getUniqueID());
    EQUAL(kOk, list.remove(record));
    aFileStore none(static_cast<TFileStore*>(nullptr));
    EQUAL(kIo, list.remove(none));
    (void)list.getFirst();
    EQUAL(kOk, list.removeCurrent());
    EQUAL(0U, list.isTail());
}

void buffers() {
    aBuf buf("a buffer");
    EQUAL(8U, buf.len());
    EQUAL(kInvalid, buf.shift(9));
    EQUAL(kOk, buf.shift(2));
    EQUAL(kOk, buf.save("./buffer"));
    aBuf other;
    EQUAL(kMissing, other.load("./nowhere"));
    EQUAL(kOk, other.load("./buffer"));
    EQUAL(false, other != buf);
    EQUAL(kInvalid, other.set(nullptr));
    EQUAL(kInvalid, other.error());
    EQUAL(std::string("buffer"), contents(other));
    EQUAL(kNoObject, other.dup(aBuf(static_cast<TBuf*>(nullptr))));
}

void ciphers(aFileStoreSrv& store) {
    aCryptoEncoder encoder;
    aCryptoDecoder decoder;
    aBuf password("p"), plain("message");
    EQUAL(true, encoder.encrypt(plain).target() == nullptr);
    EQUAL(kOk, encoder.setKey(password));
    EQUAL(kOk, decoder.setKey(password));
    aBuf cipher = encoder.encrypt(plain);
    EQUAL(std::string("message"), contents(decoder.decrypt(cipher)));
    aBuf out;
    EQUAL(kOk, store.decode(password, cipher, out));
    EQUAL(std::string("message"), contents(out));
    const aBuf ofDatabase(static_cast<TBuf*>(nullptr));
    EQUAL(kIo, store.decode(ofDatabase, cipher, out));
    EQUAL(kOk, store.encode(ofDatabase, plain, out));
}

void keys() {
    const std::string raw(16, 'k');
    aKey key(TKey::kSymmetric, bytes(raw.data()), 16);
    EQUAL(raw, contents(key.getRaw()));
    EQUAL(128, key.getParam(TKey::kBits));
    EQUAL(true, key.getParam(TKey::kModulus).target() == nullptr);
    EQUAL(kEnd, key.error());
    unsigned int slot = 1, object = 2;
    EQUAL(kEnd, key.getTokenId(slot, object));
    EQUAL(1U, slot);
    aBuf plain("message");
    aBuf cipher = key.encrypt(plain);
    EQUAL(std::string("message"), contents(key.decrypt(cipher)));
    EQUAL(kInvalid, key.verify(plain, cipher));
    EQUAL(kIo, key.isConsistent(*std::make_unique<aKey>(TKey::kRsa), 0));
    EQUAL(true, aKey(TKey::kRsa, bytes("none"), 4).target() == nullptr);

    mmPBES pbes(PBES::kPbkdf2);
    EQUAL(true, pbes.encrypt(plain).target() == nullptr);
    EQUAL(kInvalid, pbes.error());
    EQUAL(kOk, pbes.setKey(key));
    EQUAL(std::string("message"), contents(pbes.decrypt(cipher)));
    EQUAL(kInvalid, (pbes << PBES::kIterations << 0U).error());
    aHashMapFull map;
    EQUAL(kOk, map.add(plain, cipher));
    EQUAL(false, map.find(plain) != cipher);
    EQUAL(true, map.find(cipher).target() == nullptr);
}

}  // namespace

int main() {
    StoreHost host;
    if (const Result started = host.start(); !started.ok()) {
        std::puts(started.message.c_str());
        return 1;
    }
    {
        aFileStoreSrv store;
        withoutObject();
        service(store);
        attributes();
        records(store);
        lists();
        buffers();
        ciphers(store);
        keys();
    }
    EQUAL(kOk, host.stop().status);
    std::puts(faults == 0 ? "all as promised" : "the headers promise something else");
    return faults == 0 ? 0 : 1;
}
