// The places of the operations through which modules call each other. Places 0
// and 1 of every table are the two destructors.
#include <cstddef>
#include <span>

#include <gtest/gtest.h>

#include "api/base_module.h"
#include "api/pkcs5_i.h"
#include "api/t_buf.h"
#include "api/t_cryptocoder.h"
#include "api/t_filestore.h"
#include "api/t_filestore_srv.h"
#include "api/t_key.h"
#include "tests/support/raw_object.h"

namespace {

struct Place {
    std::size_t number;
    const char* operation;
    std::size_t actual;
};

// Rows are in the order of the table, so `first` and the number of rows tell
// whether one is missing.
void expectTable(std::size_t first, std::span<const Place> rows) {
    for (const Place& row : rows) {
        EXPECT_EQ(row.number, row.actual) << row.operation;
        EXPECT_EQ(first + static_cast<std::size_t>(&row - rows.data()), row.number)
            << row.operation << " is out of order here";
    }
}

// Every object that modules share continues this table.
template <class T>
void expectGuarded() {
    EXPECT_EQ(2u, slotOf(static_cast<Status (T::*)()>(&T::init)));
    EXPECT_EQ(3u, slotOf(static_cast<Status (T::*)()>(&T::fini)));
    EXPECT_EQ(sizeof(CMN_GuardedRef), sizeof(T)) << "an interface has no fields of its own";
}

TEST(ApiAbiTest, BufferAndItsService) {
    expectGuarded<TBuf>();
    const Place buffer[] = {
        {4, "capacity", slotOf(&TBuf::capacity)},
        {5, "clear", slotOf(&TBuf::clear)},
        {6, "set text", slotOf<Status(const char*)>(&TBuf::set)},
        {7, "set bytes", slotOf<Status(const unsigned char*, unsigned int)>(&TBuf::set)},
        {8, "append bytes", slotOf<Status(const unsigned char*, unsigned int)>(&TBuf::append)},
        {9, "data", slotOf(&TBuf::data)},
        {10, "length", slotOf(&TBuf::length)},
        {11, "duplicate", slotOf(&TBuf::duplicate)},
        {12, "append buffer", slotOf<Status(TBuf*)>(&TBuf::append)},
        {13, "compare", slotOf(&TBuf::compare)},
        {14, "load", slotOf(&TBuf::load)},
        {15, "save", slotOf(&TBuf::save)},
        {16, "shift", slotOf(&TBuf::shift)},
        {17, "retreat", slotOf(&TBuf::retreat)},
    };
    expectTable(4, buffer);

    expectGuarded<X509CmnSrv_I>();
    using Srv = X509CmnSrv_I;
    const Place service[] = {
        {4, "empty", slotOf<TBuf*()>(&Srv::createTBuf)},
        {5, "of text", slotOf<TBuf*(const char*)>(&Srv::createTBuf)},
        {6, "of bytes", slotOf<TBuf*(const unsigned char*, unsigned int)>(&Srv::createTBuf)},
        {7, "of buffer", slotOf<TBuf*(TBuf*)>(&Srv::createTBuf)},
    };
    expectTable(4, service);
    expectGuarded<XBase>();
}

TEST(ApiAbiTest, PasswordBasedEncryption) {
    expectGuarded<PKCS5_Interface>();
    EXPECT_EQ(4u, slotOf(&PKCS5_Interface::createObject));

    expectGuarded<PBES>();
    const Place pbes[] = {
        {4, "select", slotOf(&PBES::select)},
        {5, "supply bytes", slotOf<Status(TBuf*)>(&PBES::supply)},
        {6, "supply number", slotOf<Status(unsigned int)>(&PBES::supply)},
        {7, "supply algorithm", slotOf<Status(pki_alg_t)>(&PBES::supply)},
        {8, "setKey", slotOf(&PBES::setKey)},
        {9, "getKey", slotOf(&PBES::getKey)},
        {10, "encrypt", slotOf(&PBES::encrypt)},
        {11, "decrypt", slotOf(&PBES::decrypt)},
        {12, "error", slotOf(&PBES::error)},
    };
    expectTable(4, pbes);

    expectGuarded<P12PBKDF>();
    const Place pbkdf[] = {
        {4, "select", slotOf(&P12PBKDF::select)},
        {5, "supply bytes", slotOf<Status(TBuf*)>(&P12PBKDF::supply)},
        {6, "supply number", slotOf<Status(unsigned int)>(&P12PBKDF::supply)},
        {7, "supply algorithm", slotOf<Status(pki_alg_t)>(&P12PBKDF::supply)},
        {8, "getKey", slotOf(&P12PBKDF::getKey)},
        {9, "error", slotOf(&P12PBKDF::error)},
        {10, "setHashMap", slotOf(&P12PBKDF::setHashMap)},
    };
    expectTable(4, pbkdf);

    expectGuarded<HashMap>();
    EXPECT_EQ(4u, slotOf(&HashMap::add));
    EXPECT_EQ(5u, slotOf(&HashMap::find));
}

TEST(ApiAbiTest, NumbersOfThePasswordBasedEncryption) {
    EXPECT_EQ(0u, PKCS5_Interface::kPbes0);
    EXPECT_EQ(1u, PKCS5_Interface::kPbes1);
    EXPECT_EQ(2u, PKCS5_Interface::kP12Pbkdf);
    EXPECT_EQ(3u, PKCS5_Interface::kHashMap);
    EXPECT_EQ(0u, PBES::kPbkdf2);
    EXPECT_EQ(1u, PBES::kPkcs12);
    EXPECT_EQ(1u, PBES::kPassword);
    EXPECT_EQ(2u, PBES::kSalt);
    EXPECT_EQ(3u, PBES::kIterations);
    EXPECT_EQ(4u, PBES::kFirstAlg);
    EXPECT_EQ(5u, PBES::kKeyLength);
    EXPECT_EQ(6u, PBES::kSecondAlg);
    EXPECT_EQ(9u, PKI_ALG_AES_GCM);
    EXPECT_EQ(0x20000u, PKI_ALG_PBKDF2_HMAC_SHA256);
}

TEST(ApiAbiTest, KeyAndItsService) {
    expectGuarded<TKey>();
    using Number = TKey::bka_t;
    using Bytes = TKey::aka_t;
    const Place key[] = {
        {4, "duplicate", slotOf(&TKey::duplicate)},
        {5, "compare", slotOf(&TKey::compare)},
        {6, "clear", slotOf(&TKey::clear)},
        {7, "getType", slotOf(&TKey::getType)},
        {8, "setAlg", slotOf(&TKey::setAlg)},
        {9, "getAlg", slotOf(&TKey::getAlg)},
        {10, "setKey", slotOf(&TKey::setKey)},
        {11, "getKey", slotOf(&TKey::getKey)},
        {12, "getParam tag", slotOf<TBuf*(unsigned char) const>(&TKey::getParam)},
        {13, "setParam tag", slotOf<Status(unsigned char, TBuf*)>(&TKey::setParam)},
        {14, "getParam bytes", slotOf<TBuf*(Bytes) const>(&TKey::getParam)},
        {15, "getParam number", slotOf<int(Number) const>(&TKey::getParam)},
        {16, "setParam bytes", slotOf<Status(Bytes, TBuf*)>(&TKey::setParam)},
        {17, "setParam number", slotOf<Status(Number, int)>(&TKey::setParam)},
        {18, "getRaw", slotOf(&TKey::getRaw)},
        {19, "setRaw bytes", slotOf<Status(const unsigned char*, unsigned int)>(&TKey::setRaw)},
        {20, "setTokenId", slotOf(&TKey::setTokenId)},
        {21, "getTokenId", slotOf(&TKey::getTokenId)},
        {22, "setRaw buffer", slotOf<Status(TBuf*)>(&TKey::setRaw)},
        {23, "getKeyId", slotOf(&TKey::getKeyId)},
        {24, "setKeyId", slotOf(&TKey::setKeyId)},
        {25, "sign", slotOf(&TKey::sign)},
        {26, "verify", slotOf(&TKey::verify)},
        {27, "encrypt", slotOf(&TKey::encrypt)},
        {28, "decrypt", slotOf(&TKey::decrypt)},
        {29, "isConsistent", slotOf(&TKey::isConsistent)},
        {30, "setVendor", slotOf(&TKey::setVendor)},
        {31, "getVendor", slotOf(&TKey::getVendor)},
        {32, "getError", slotOf(&TKey::getError)},
    };
    expectTable(4, key);

    expectGuarded<TPkixKeyService>();
    using Srv = TPkixKeyService;
    using Type = TKey::key_type_t;
    const Place service[] = {
        {4, "empty", slotOf<TKey*()>(&Srv::createTKey)},
        {5, "of a type", slotOf<TKey*(Type)>(&Srv::createTKey)},
        {6, "of bytes", slotOf<TKey*(Type, const unsigned char*, unsigned int)>(&Srv::createTKey)},
    };
    expectTable(4, service);
}

TEST(ApiAbiTest, RecordAndList) {
    expectGuarded<TFileStore>();
    const Place record[] = {
        {4, "getFolderName", slotOf(&TFileStore::getFolderName)},
        {5, "setFolderName", slotOf(&TFileStore::setFolderName)},
        {6, "getName", slotOf(&TFileStore::getName)},
        {7, "setName", slotOf(&TFileStore::setName)},
        {8, "getFileName", slotOf(&TFileStore::getFileName)},
        {9, "setFileName", slotOf(&TFileStore::setFileName)},
        {10, "decrypt", slotOf(&TFileStore::decrypt)},
        {11, "setBody", slotOf(&TFileStore::setBody)},
        {12, "getBodySize", slotOf(&TFileStore::getBodySize)},
        {13, "getBody", slotOf(&TFileStore::getBody)},
        {14, "setBodyFlag", slotOf(&TFileStore::setBodyFlag)},
        {15, "getBodyFlag", slotOf(&TFileStore::getBodyFlag)},
        {16, "addAttr", slotOf(&TFileStore::addAttr)},
        {17, "setAttr", slotOf(&TFileStore::setAttr)},
        {18, "getAttrCount", slotOf(&TFileStore::getAttrCount)},
        {19, "getAttrType", slotOf(&TFileStore::getAttrType)},
        {20, "getAttrID", slotOf(&TFileStore::getAttrID)},
        {21, "getAttrSize", slotOf(&TFileStore::getAttrSize)},
        {22, "getAttr", slotOf(&TFileStore::getAttr)},
        {23, "setAttrFlag", slotOf(&TFileStore::setAttrFlag)},
        {24, "getAttrFlag", slotOf(&TFileStore::getAttrFlag)},
        {25, "findAttr", slotOf(&TFileStore::findAttr)},
        {26, "removeAttr", slotOf(&TFileStore::removeAttr)},
        {27, "removeAttrs", slotOf(&TFileStore::removeAttrs)},
        {28, "read", slotOf(&TFileStore::read)},
        {29, "write", slotOf(&TFileStore::write)},
        {30, "isExist", slotOf(&TFileStore::isExist)},
        {31, "remove", slotOf(&TFileStore::remove)},
        {32, "getUniqueID", slotOf(&TFileStore::getUniqueID)},
        {33, "setLockType", slotOf(&TFileStore::setLockType)},
        {34, "setLoginCheck", slotOf(&TFileStore::setLoginCheck)},
        {35, "hasBody", slotOf(&TFileStore::hasBody)},
    };
    expectTable(4, record);

    expectGuarded<TFileStoreList>();
    const Place list[] = {
        {4, "getFirst", slotOf(&TFileStoreList::getFirst)},
        {5, "getNext", slotOf(&TFileStoreList::getNext)},
        {6, "removeCurrent", slotOf(&TFileStoreList::removeCurrent)},
        {7, "isEmpty", slotOf(&TFileStoreList::isEmpty)},
        {8, "isTail", slotOf(&TFileStoreList::isTail)},
        {9, "pushFront", slotOf(&TFileStoreList::pushFront)},
        {10, "pushBack", slotOf(&TFileStoreList::pushBack)},
        {11, "remove", slotOf(&TFileStoreList::remove)},
        {12, "readFromFolder", slotOf(&TFileStoreList::readFromFolder)},
        {13, "setLockType", slotOf(&TFileStoreList::setLockType)},
    };
    expectTable(4, list);
}

TEST(ApiAbiTest, RecordCipher) {
    expectGuarded<TCryptoCoder>();
    EXPECT_EQ(4u, slotOf(&TCryptoCoder::setKey));
    EXPECT_EQ(5u, slotOf(&TCryptoCoder::encrypt));
    EXPECT_EQ(6u, slotOf(&TCryptoCoder::decrypt));
}

// The store's service continues the module's table with its own operations, and
// has init and fini at its end as well as in the guarded object's table.
TEST(ApiAbiTest, ModuleAndStoreService) {
    const Place module[] = {
        {2, "getModuleID", slotOf(&BaseModuleInterface::getModuleID)},
        {3, "getVersion", slotOf(&BaseModuleInterface::getVersion)},
        {4, "getBuild", slotOf(&BaseModuleInterface::getBuild)},
        {5, "isReplaceable", slotOf(&BaseModuleInterface::isReplaceable)},
        {6, "createObject", slotOf(&BaseModuleInterface::createObject)},
        {7, "addModule", slotOf(&BaseModuleInterface::addModule)},
        {8, "getService", slotOf(&BaseModuleInterface::getService)},
    };
    expectTable(2, module);
    const Place service[] = {
        {9, "open", slotOf(&TFileStoreSrv::open)},
        {10, "close", slotOf(&TFileStoreSrv::close)},
        {11, "isOpen", slotOf(&TFileStoreSrv::isOpen)},
        {12, "checkPwd", slotOf(&TFileStoreSrv::checkPwd)},
        {13, "recrypt", slotOf(&TFileStoreSrv::recrypt)},
        {14, "create", slotOf(&TFileStoreSrv::create)},
        {15, "getEncoder", slotOf(&TFileStoreSrv::getEncoder)},
        {16, "getDecoder", slotOf(&TFileStoreSrv::getDecoder)},
        {17, "encode", slotOf(&TFileStoreSrv::encode)},
        {18, "decode", slotOf(&TFileStoreSrv::decode)},
        {19, "prepareDBFolders", slotOf(&TFileStoreSrv::prepareDBFolders)},
        {20, "init", slotOf(&TFileStoreSrv::init)},
        {21, "fini", slotOf(&TFileStoreSrv::fini)},
    };
    expectTable(9, service);
    EXPECT_EQ(sizeof(BaseModuleInterface) + sizeof(CMN_GuardedRef), sizeof(TFileStoreSrv));
    EXPECT_EQ(0x6B0001u, TFileStoreSrv::kRecord);
    EXPECT_EQ(0x6B0002u, TFileStoreSrv::kRecordList);
    EXPECT_EQ(0x6B0003u, TFileStoreSrv::kCipher);
}

}  // namespace
