#include "client/file_store_exp.h"

#include "client/s_filestoreC.h"

aFileStore::aFileStore() : aFileStore(static_cast<TFileStore*>(nullptr)) {
    m_ref = static_cast<TFileStore*>(FileStoreSrvC.create(TFileStoreSrv::kRecord));
}

aFileStore::aFileStore(TFileStore* target) : CMN_ObjectStub(target, &FileStoreSrvC) {}

aFileStore::aFileStore(const aFileStore& other) : CMN_ObjectStub(other.target(), nullptr) {}

Status aFileStore::setFolderName(const char* folder) {
    return forward(&TFileStore::setFolderName, kNoObject, folder);
}

Status aFileStore::setName(const char* name) {
    return forward(&TFileStore::setName, kNoObject, name);
}

Status aFileStore::setFileName(const char* fileName) {
    return forward(&TFileStore::setFileName, kNoObject, fileName);
}

const char* aFileStore::getFolderName() const {
    return forward(&TFileStore::getFolderName, nullptr);
}

const char* aFileStore::getName() const {
    return forward(&TFileStore::getName, nullptr);
}

const char* aFileStore::getFileName() const {
    return forward(&TFileStore::getFileName, nullptr);
}

Status aFileStore::decrypt() {
    return forward(&TFileStore::decrypt, kNoObject);
}

Status aFileStore::setBody(const unsigned char* data, unsigned int size) {
    return forward(&TFileStore::setBody, kNoObject, data, size);
}

Status aFileStore::setBodyFlag(unsigned int flag) {
    return forward(&TFileStore::setBodyFlag, kNoObject, flag);
}

const unsigned char* aFileStore::getBody() const {
    return forward(&TFileStore::getBody, nullptr);
}

unsigned int aFileStore::getBodySize() const {
    return forward(&TFileStore::getBodySize, 0);
}

unsigned int aFileStore::getBodyFlag() const {
    return forward(&TFileStore::getBodyFlag, 0);
}

int aFileStore::hasBody() const {
    return forward(&TFileStore::hasBody, 0);
}

Status aFileStore::addAttr(unsigned int type, unsigned int id, const unsigned char* data,
                           unsigned int size) {
    return forward(&TFileStore::addAttr, kNoObject, type, id, data, size);
}

Status aFileStore::setAttr(unsigned int type, unsigned int id, const unsigned char* data,
                           unsigned int size) {
    return forward(&TFileStore::setAttr, kNoObject, type, id, data, size);
}

Status aFileStore::setAttrFlag(unsigned int index, unsigned int flag) {
    return forward(&TFileStore::setAttrFlag, kNoObject, index, flag);
}

Status aFileStore::removeAttr(unsigned int index) {
    return forward(&TFileStore::removeAttr, kNoObject, index);
}

Status aFileStore::removeAttrs() {
    return forward(&TFileStore::removeAttrs, kNoObject);
}

unsigned int aFileStore::getAttrCount() const {
    return forward(&TFileStore::getAttrCount, 0);
}

unsigned int aFileStore::getAttrType(unsigned int index) const {
    return forward(&TFileStore::getAttrType, 0, index);
}

unsigned int aFileStore::getAttrID(unsigned int index) const {
    return forward(&TFileStore::getAttrID, 0, index);
}

unsigned int aFileStore::getAttrSize(unsigned int index) const {
    return forward(&TFileStore::getAttrSize, 0, index);
}

unsigned int aFileStore::getAttrFlag(unsigned int index) const {
    return forward(&TFileStore::getAttrFlag, 0, index);
}

const unsigned char* aFileStore::getAttr(unsigned int index) const {
    return forward(&TFileStore::getAttr, nullptr, index);
}

unsigned int aFileStore::findAttr(unsigned int type, unsigned int id, const unsigned char* data,
                                  unsigned int size) const {
    return forward(&TFileStore::findAttr, 0xFFFFFFFFU, type, id, data, size);
}

Status aFileStore::read() {
    return forward(&TFileStore::read, kNoObject);
}

Status aFileStore::write() {
    return forward(&TFileStore::write, kNoObject);
}

Status aFileStore::remove() {
    return forward(&TFileStore::remove, kNoObject);
}

int aFileStore::isExist() const {
    return forward(&TFileStore::isExist, 0);
}

unsigned int aFileStore::getUniqueID() const {
    return forward(&TFileStore::getUniqueID, 0);
}

aFileStoreExt::aFileStoreExt(aFileStore& from) {
    aFileStore::operator=(from);
}

Status aFileStoreExt::setLockType(int type) {
    return forward(&TFileStore::setLockType, kNoObject, type);
}

Status aFileStoreExt::setLoginCheck(int check) {
    return forward(&TFileStore::setLoginCheck, kNoObject, check);
}

aFileStoreList::aFileStoreList() : aFileStoreList(static_cast<TFileStoreList*>(nullptr)) {
    m_ref = static_cast<TFileStoreList*>(FileStoreSrvC.create(TFileStoreSrv::kRecordList));
}

aFileStoreList::aFileStoreList(TFileStoreList* target) : CMN_ObjectStub(target, &FileStoreSrvC) {}

namespace {

aFileStore noRecord() {
    return aFileStore(static_cast<TFileStore*>(nullptr));
}

}  // namespace

aFileStore aFileStoreList::getFirst() {
    return forwardTo(m_ref, noRecord, [](TFileStoreList& list) { return list.getFirst(); });
}

aFileStore aFileStoreList::getNext() {
    return forwardTo(m_ref, noRecord, [](TFileStoreList& list) { return list.getNext(); });
}

Status aFileStoreList::removeCurrent() {
    return forward(&TFileStoreList::removeCurrent, kNoObject);
}

unsigned int aFileStoreList::isEmpty() const {
    return forward(&TFileStoreList::isEmpty, 1);
}

unsigned int aFileStoreList::isTail() const {
    return forward(&TFileStoreList::isTail, 1);
}

Status aFileStoreList::pushFront(aFileStore& item) {
    return forward(&TFileStoreList::pushFront, kNoObject, item);
}

Status aFileStoreList::pushBack(aFileStore& item) {
    return forward(&TFileStoreList::pushBack, kNoObject, item);
}

Status aFileStoreList::remove(aFileStore& item) {
    return forward(&TFileStoreList::remove, kNoObject, item);
}

Status aFileStoreList::readFromFolder(const char* folder) {
    return forward(&TFileStoreList::readFromFolder, kNoObject, folder);
}

aFileStoreListExt::aFileStoreListExt(aFileStoreList& from) {
    aFileStoreList::operator=(from);
}

Status aFileStoreListExt::setLockType(int type) {
    return forward(&TFileStoreList::setLockType, kNoObject, type);
}
