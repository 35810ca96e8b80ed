// Handles of records and lists: each call reaches the object under its guard, or has
// the answer of a handle without object.
#include "client/file_store_exp.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/s_filestoreC.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/support/doubles/double_services.h"
#include "tests/support/fake_store_srv.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Status kAnswer = 77;  // a status that is none of ours
const unsigned char kBytes[] = {'d', 'a', 't', 'a'};

std::string text(const char* s) {
    return s == nullptr ? "null" : s;
}
std::string text(const unsigned char* s) {
    return text(reinterpret_cast<const char*>(s));
}
template <class Number>
std::string text(Number number) {
    return std::to_string(number);
}

// Records and lists that note what they are asked; the results tell them apart.
class FakeRecord final : public TFileStore, public Asked {
public:
    explicit FakeRecord(int* alive = nullptr) : TFileStore(0), alive_(alive) { count(1); }
    FakeRecord(const FakeRecord&) = delete;
    FakeRecord& operator=(const FakeRecord&) = delete;
    ~FakeRecord() override { count(-1); }

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    const char* getFolderName() override { return ask("folder", "getFolderName"); }
    Status setFolderName(const char* folder) override {
        return ask(kAnswer, "setFolderName", folder);
    }
    const char* getName() override { return ask("name", "getName"); }
    Status setName(const char* name) override { return ask(kAnswer, "setName", name); }
    const char* getFileName() override { return ask("file", "getFileName"); }
    Status setFileName(const char* name) override { return ask(kAnswer, "setFileName", name); }
    Status decrypt() override { return ask(kAnswer, "decrypt"); }
    Status setBody(const unsigned char* data, unsigned int size) override {
        return ask(kAnswer, "setBody", data, size);
    }
    unsigned int getBodySize() override { return ask(11U, "getBodySize"); }
    const unsigned char* getBody() override { return ask(kBytes, "getBody"); }
    Status setBodyFlag(unsigned int flag) override { return ask(kAnswer, "setBodyFlag", flag); }
    unsigned int getBodyFlag() override { return ask(12U, "getBodyFlag"); }
    Status addAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                   unsigned int size) override {
        return ask(kAnswer, "addAttr", kind, id, data, size);
    }
    Status setAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                   unsigned int size) override {
        return ask(kAnswer, "setAttr", kind, id, data, size);
    }
    unsigned int getAttrCount() override { return ask(13U, "getAttrCount"); }
    unsigned int getAttrType(unsigned int index) override { return ask(14U, "getAttrType", index); }
    unsigned int getAttrID(unsigned int index) override { return ask(15U, "getAttrID", index); }
    unsigned int getAttrSize(unsigned int index) override { return ask(16U, "getAttrSize", index); }
    const unsigned char* getAttr(unsigned int index) override {
        return ask(kBytes + 1, "getAttr", index);
    }
    Status setAttrFlag(unsigned int index, unsigned int flag) override {
        return ask(kAnswer, "setAttrFlag", index, flag);
    }
    unsigned int getAttrFlag(unsigned int index) override { return ask(17U, "getAttrFlag", index); }
    unsigned int findAttr(unsigned int kind, unsigned int id, const unsigned char* data,
                          unsigned int size) override {
        return ask(18U, "findAttr", kind, id, data, size);
    }
    Status removeAttr(unsigned int index) override { return ask(kAnswer, "removeAttr", index); }
    Status removeAttrs() override { return ask(kAnswer, "removeAttrs"); }
    Status read() override { return ask(kAnswer, "read"); }
    Status write() override { return ask(kAnswer, "write"); }
    int isExist() override { return ask(19, "isExist"); }
    Status remove() override { return ask(kAnswer, "remove"); }
    unsigned int getUniqueID() override { return ask(20U, "getUniqueID"); }
    Status setLockType(int kind) override { return ask(kAnswer, "setLockType", kind); }
    Status setLoginCheck(int check) override { return ask(kAnswer, "setLoginCheck", check); }
    int hasBody() override { return ask(21, "hasBody"); }

    bool throws = false;

private:
    void count(int by) {
        if (alive_ != nullptr) {
            *alive_ += by;
        }
    }

    template <class Result, class... Args>
    Result ask(Result result, std::string what, Args... args) {
        ((what += ' ', what += text(args)), ...);
        note(*this, what);
        if (throws) {
            throw DoubleTrouble(what);
        }
        return result;
    }

    int* alive_;
};

class FakeList final : public TFileStoreList, public Asked {
public:
    FakeList() : TFileStoreList(0) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }
    aFileStore getFirst() override { return ask("getFirst"), aFileStore(element.get()); }
    aFileStore getNext() override { return ask("getNext"), aFileStore(element.get()); }
    Status removeCurrent() override { return ask("removeCurrent"); }
    unsigned int isEmpty() override { return ask("isEmpty"), 21; }
    unsigned int isTail() override { return ask("isTail"), 22; }
    Status pushFront(aFileStore& item) override { return ask("pushFront", item); }
    Status pushBack(aFileStore& item) override { return ask("pushBack", item); }
    Status remove(aFileStore& item) override { return ask("remove", item); }
    Status readFromFolder(const char* folder) override {
        return ask(std::string("readFromFolder ") + folder);
    }
    Status setLockType(int kind) override { return ask("setLockType " + std::to_string(kind)); }

    CMN_GRefPtr<TFileStore> element{new FakeRecord};

private:
    Status ask(std::string what) {
        note(*this, std::move(what));
        return kAnswer;
    }
    Status ask(std::string what, const aFileStore& item) {
        return ask(std::move(what) + (item.target() == element.get() ? " element" : " other"));
    }
};

template <class Handle>
struct Forwarded {
    const char* call;  // as the object notes it
    std::function<std::string(Handle&)> make;
    std::string result;   // of the object
    std::string missing;  // of a handle without one
};

class FileStoreHandleTest : public testing::Test {
protected:
    FileStoreHandleTest() {
        services.host().offer(107, service.get());
        service.get()->made = [this](unsigned int kind) -> CMN_GuardedRef* {
            switch (kind) {
                case 0x6B0001:
                    return new FakeRecord(&records);
                case 0x6B0002:
                    return new FakeList;
                default:
                    return nullptr;
            }
        };
    }

    template <class Handle, class Object>
    static void expectForwarded(const std::vector<Forwarded<Handle>>& rows, Handle& handle,
                                Object& object) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.call);
            object.calls.clear();
            EXPECT_EQ(row.result, row.make(handle));
            EXPECT_THAT(object.calls, ElementsAre(AskedFor{row.call, 1}));
            EXPECT_EQ(0, object.getGuard()->calls());
        }
    }

    template <class Handle>
    static void expectMissing(const std::vector<Forwarded<Handle>>& rows, Handle& handle) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.call);
            EXPECT_EQ(row.missing, row.make(handle));
        }
    }

    DoubleServices services;
    CMN_GRefPtr<FakeStoreSrv> service{new FakeStoreSrv};
    int records = 0;  // made by the service and alive
};

const std::vector<Forwarded<aFileStore>>& recordCalls() {
    static const std::vector<Forwarded<aFileStore>> rows{
        {"setFolderName f", [](aFileStore& r) { return text(r.setFolderName("f")); }, "77", "40"},
        {"setName n", [](aFileStore& r) { return text(r.setName("n")); }, "77", "40"},
        {"setName null", [](aFileStore& r) { return text(r.setName(nullptr)); }, "77", "40"},
        {"setFileName n", [](aFileStore& r) { return text(r.setFileName("n")); }, "77", "40"},
        {"getFolderName", [](aFileStore& r) { return text(r.getFolderName()); }, "folder", "null"},
        {"getName", [](aFileStore& r) { return text(r.getName()); }, "name", "null"},
        {"getFileName", [](aFileStore& r) { return text(r.getFileName()); }, "file", "null"},
        {"decrypt", [](aFileStore& r) { return text(r.decrypt()); }, "77", "40"},
        {"setBody null 5", [](aFileStore& r) { return text(r.setBody(nullptr, 5)); }, "77", "40"},
        {"setBodyFlag 9", [](aFileStore& r) { return text(r.setBodyFlag(9)); }, "77", "40"},
        {"getBody", [](aFileStore& r) { return text(r.getBody() == kBytes); }, "1", "0"},
        {"getBodySize", [](aFileStore& r) { return text(r.getBodySize()); }, "11", "0"},
        {"getBodyFlag", [](aFileStore& r) { return text(r.getBodyFlag()); }, "12", "0"},
        {"hasBody", [](aFileStore& r) { return text(r.hasBody()); }, "21", "0"},
        {"addAttr 1 2 null 4", [](aFileStore& r) { return text(r.addAttr(1, 2, nullptr, 4)); },
         "77", "40"},
        {"setAttr 1 2 null 4", [](aFileStore& r) { return text(r.setAttr(1, 2, nullptr, 4)); },
         "77", "40"},
        {"setAttrFlag 1 2", [](aFileStore& r) { return text(r.setAttrFlag(1, 2)); }, "77", "40"},
        {"removeAttr 3", [](aFileStore& r) { return text(r.removeAttr(3)); }, "77", "40"},
        {"removeAttrs", [](aFileStore& r) { return text(r.removeAttrs()); }, "77", "40"},
        {"getAttrCount", [](aFileStore& r) { return text(r.getAttrCount()); }, "13", "0"},
        {"getAttrType 3", [](aFileStore& r) { return text(r.getAttrType(3)); }, "14", "0"},
        {"getAttrID 3", [](aFileStore& r) { return text(r.getAttrID(3)); }, "15", "0"},
        {"getAttrSize 3", [](aFileStore& r) { return text(r.getAttrSize(3)); }, "16", "0"},
        {"getAttrFlag 3", [](aFileStore& r) { return text(r.getAttrFlag(3)); }, "17", "0"},
        {"getAttr 3", [](aFileStore& r) { return text(r.getAttr(3) == kBytes + 1); }, "1", "0"},
        {"findAttr 1 2 null 4", [](aFileStore& r) { return text(r.findAttr(1, 2, nullptr, 4)); },
         "18", "4294967295"},
        {"read", [](aFileStore& r) { return text(r.read()); }, "77", "40"},
        {"write", [](aFileStore& r) { return text(r.write()); }, "77", "40"},
        {"remove", [](aFileStore& r) { return text(r.remove()); }, "77", "40"},
        {"isExist", [](aFileStore& r) { return text(r.isExist()); }, "19", "0"},
        {"getUniqueID", [](aFileStore& r) { return text(r.getUniqueID()); }, "20", "0"},
    };
    return rows;
}

const std::vector<Forwarded<aFileStoreExt>>& recordSetters() {
    static const std::vector<Forwarded<aFileStoreExt>> rows{
        {"setLockType -1", [](aFileStoreExt& r) { return text(r.setLockType(-1)); }, "77", "40"},
        {"setLoginCheck 5", [](aFileStoreExt& r) { return text(r.setLoginCheck(5)); }, "77", "40"},
    };
    return rows;
}

TEST_F(FileStoreHandleTest, EveryCallReachesTheRecord) {
    const CMN_GRefPtr<FakeRecord> record(new FakeRecord);
    aFileStore handle(record.get());
    expectForwarded(recordCalls(), handle, *record.get());
    aFileStoreExt extension(handle);
    expectForwarded(recordSetters(), extension, *record.get());
}

TEST_F(FileStoreHandleTest, BytesAreHandedOnAsTheyAre) {
    const CMN_GRefPtr<FakeRecord> record(new FakeRecord);
    aFileStore handle(record.get());
    const auto* const data = reinterpret_cast<const unsigned char*>("data");
    (void)handle.setBody(data, 4);
    (void)handle.addAttr(1, 2, data, 4);
    (void)handle.setAttr(3, 4, data, 2);
    (void)handle.findAttr(5, 6, data, 1);
    EXPECT_THAT(record.get()->calls,
                ElementsAre(AskedFor{"setBody data 4", 1}, AskedFor{"addAttr 1 2 data 4", 1},
                            AskedFor{"setAttr 3 4 data 2", 1}, AskedFor{"findAttr 5 6 data 1", 1}));
}

TEST_F(FileStoreHandleTest, HandleWithoutRecordAnswersByItself) {
    aFileStore handle(static_cast<TFileStore*>(nullptr));
    expectMissing(recordCalls(), handle);
    aFileStoreExt extension(handle);
    EXPECT_EQ(nullptr, extension.target());
    expectMissing(recordSetters(), extension);
    EXPECT_EQ(0, records) << "the one that the extension began with is gone";
}

TEST_F(FileStoreHandleTest, GuardIsLoweredWhenAnExceptionPasses) {
    const CMN_GRefPtr<FakeRecord> record(new FakeRecord);
    aFileStore handle(record.get());
    record.get()->throws = true;
    for (const auto& row : recordCalls()) {
        EXPECT_THROW((void)row.make(handle), DoubleTrouble);
        EXPECT_EQ(0, record.get()->getGuard()->calls());
    }
}

TEST_F(FileStoreHandleTest, NewHandleHasARecordOfTheService) {
    service.get()->calls.clear();
    {
        const aFileStore handle;
        EXPECT_NE(nullptr, handle.target());
        EXPECT_THAT(service.get()->calls, ElementsAre(AskedFor{"create", 1}));
        EXPECT_EQ(1, records);
        const aFileStore other;
        EXPECT_EQ(2, records);
        EXPECT_NE(handle.target(), other.target());
    }
    EXPECT_EQ(0, records) << "the last handle lets its record go";
}

TEST_F(FileStoreHandleTest, WithoutServiceNewHandlesAreEmpty) {
    services.host().withdraw(107);
    EXPECT_EQ(nullptr, aFileStore().target());
    EXPECT_EQ(nullptr, aFileStoreList().target());
    services.host().offer(107, service.get());
    EXPECT_NE(nullptr, aFileStore().target());
    service.get()->made = {};
    EXPECT_EQ(nullptr, aFileStore().target()) << "the service makes nothing";
    EXPECT_EQ(nullptr, aFileStoreList().target());
}

TEST_F(FileStoreHandleTest, CopiesShareTheRecord) {
    aFileStore handle;
    {
        const aFileStore copy(handle);
        EXPECT_EQ(handle.target(), copy.target());
        EXPECT_EQ(2, handle.target()->references());
    }
    EXPECT_EQ(1, handle.target()->references());
    aFileStore other;
    EXPECT_EQ(2, records);
    other = handle;
    EXPECT_EQ(1, records);
    EXPECT_EQ(handle.target(), other.target());
    other = aFileStore(static_cast<TFileStore*>(nullptr));
    EXPECT_EQ(nullptr, other.target());
    EXPECT_EQ(1, records);
    aFileStore& same = other;
    other = same;
    EXPECT_EQ(nullptr, other.target());
}

TEST_F(FileStoreHandleTest, ExtensionSharesTheRecordAndOutlivesTheHandle) {
    auto handle = std::make_unique<aFileStore>();
    aFileStoreExt extension(*handle);
    EXPECT_EQ(handle->target(), extension.target());
    EXPECT_EQ(1, records);
    handle.reset();
    EXPECT_EQ(1, records);
    EXPECT_EQ(kAnswer, extension.setLockType(0));
}

// Whoever has a use of the service keeps it acquired.
TEST_F(FileStoreHandleTest, HandlesCountTheirUseOfTheServiceAndCopiesDoNot) {
    EXPECT_EQ(0, FileStoreSrvC.uses());
    {
        aFileStore handle;
        EXPECT_EQ(1, FileStoreSrvC.uses());
        const aFileStore empty(static_cast<TFileStore*>(nullptr));
        EXPECT_EQ(2, FileStoreSrvC.uses());
        {
            const aFileStore copy(handle);
            EXPECT_EQ(2, FileStoreSrvC.uses());
        }
        EXPECT_EQ(2, FileStoreSrvC.uses()) << "a copy gives nothing back that it did not take";
        const aFileStoreExt extension(handle);
        EXPECT_EQ(3, FileStoreSrvC.uses());
        handle = empty;
        EXPECT_EQ(3, FileStoreSrvC.uses());
        EXPECT_EQ(1, services.host().uses(107));
    }
    EXPECT_EQ(0, FileStoreSrvC.uses());
    EXPECT_EQ(nullptr, FileStoreSrvC.service());
    EXPECT_EQ(0, services.host().uses(107));
}

// Lists.

const std::vector<Forwarded<aFileStoreList>>& listCalls() {
    const auto none = [] {
        return std::make_unique<aFileStore>(static_cast<TFileStore*>(nullptr));
    };
    static const std::vector<Forwarded<aFileStoreList>> rows{
        {"removeCurrent", [](aFileStoreList& l) { return text(l.removeCurrent()); }, "77", "40"},
        {"isEmpty", [](aFileStoreList& l) { return text(l.isEmpty()); }, "21", "1"},
        {"isTail", [](aFileStoreList& l) { return text(l.isTail()); }, "22", "1"},
        {"pushFront other", [none](aFileStoreList& l) { return text(l.pushFront(*none())); }, "77",
         "40"},
        {"pushBack other", [none](aFileStoreList& l) { return text(l.pushBack(*none())); }, "77",
         "40"},
        {"remove other", [none](aFileStoreList& l) { return text(l.remove(*none())); }, "77", "40"},
        {"readFromFolder f", [](aFileStoreList& l) { return text(l.readFromFolder("f")); }, "77",
         "40"},
    };
    return rows;
}

TEST_F(FileStoreHandleTest, EveryCallReachesTheList) {
    const CMN_GRefPtr<FakeList> list(new FakeList);
    aFileStoreList handle(list.get());
    expectForwarded(listCalls(), handle, *list.get());
    aFileStore element(list.get()->element.get());
    list.get()->calls.clear();
    EXPECT_EQ(element.target(), handle.getFirst().target());
    EXPECT_EQ(element.target(), handle.getNext().target());
    EXPECT_EQ(kAnswer, handle.pushFront(element));
    EXPECT_THAT(list.get()->calls, ElementsAre(AskedFor{"getFirst", 1}, AskedFor{"getNext", 1},
                                               AskedFor{"pushFront element", 1}));
    aFileStoreListExt extension(handle);
    list.get()->calls.clear();
    EXPECT_EQ(kAnswer, extension.setLockType(-1));
    EXPECT_THAT(list.get()->calls, ElementsAre(AskedFor{"setLockType -1", 1}));
}

TEST_F(FileStoreHandleTest, HandleWithoutListAnswersByItself) {
    aFileStoreList handle(static_cast<TFileStoreList*>(nullptr));
    expectMissing(listCalls(), handle);
    const int before = FileStoreSrvC.uses();
    {
        aFileStore first = handle.getFirst();
        EXPECT_EQ(nullptr, first.target());
        EXPECT_EQ(0U, first.getUniqueID());
        EXPECT_EQ(nullptr, handle.getNext().target());
        EXPECT_EQ(before + 1, FileStoreSrvC.uses()) << "it has a use of the service";
    }
    aFileStoreListExt extension(handle);
    EXPECT_EQ(nullptr, extension.target());
    EXPECT_EQ(kNoObject, extension.setLockType(0));
}

TEST_F(FileStoreHandleTest, NewListHandleHasAListOfTheService) {
    const aFileStoreList handle;
    EXPECT_NE(nullptr, dynamic_cast<FakeList*>(handle.target()));
    EXPECT_EQ(1, FileStoreSrvC.uses());
    const aFileStoreList copy(handle);  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(handle.target(), copy.target());
    EXPECT_EQ(2, FileStoreSrvC.uses());
}

}  // namespace
