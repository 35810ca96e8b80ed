// A module that uses the store, as modules of the application do: with an identifier
// and a copy of the framework of its own, through nothing but the store's proxies.
#ifndef TESTS_SYSTEM_CLIENT_MODULE_CLIENT_H
#define TESTS_SYSTEM_CLIENT_MODULE_CLIENT_H

#include "cmn/cmn_gref.h"
#include "cmn/cmn_stub.h"
#include "cmn/id_type.h"
#include "cmn/status.h"

class TClient : public CMN_GuardedRef {
public:
    using CMN_GuardedRef::CMN_GuardedRef;

    // Each answers with the first status of the store that is not kOk.

    virtual Status openStore(const char* password) = 0;  // and makes its folders
    virtual Status closeStore() = 0;
    virtual Status changePassword(const char* from, const char* to) = 0;

    // A record with this text as its encrypted body and in an encrypted attribute;
    // get() is kMalformed when the two differ, or are not `text`.
    virtual Status put(const char* name, const char* text) = 0;
    virtual Status get(const char* name, const char* text) = 0;
    virtual Status drop(const char* name) = 0;
    virtual Status count(unsigned int& records) = 0;

    // Encrypts and decrypts the text under the key of the open database, and under
    // one of its own; kMalformed when it does not come back.
    virtual Status seal(const char* text) = 0;

    // Holds a record of the store until letGo().
    virtual Status keep(const char* name) = 0;
    virtual Status getKept(const char* text) = 0;
    virtual void letGo() = 0;
};

inline constinit Tuint32ID kClientID(300);

class aClient : public CMN_ServiceStub<TClient> {
public:
    aClient() : CMN_ServiceStub(kClientID) {}

    // kNoObject without the module.
    template <class... Params, class... Args>
    Status operator()(Status (TClient::*operation)(Params...), Args&&... args) {
        return forward(operation, kNoObject, std::forward<Args>(args)...);
    }
    void letGo() {
        call(0, [](TClient& client) {
            client.letGo();
            return 0;
        });
    }
};

#endif  // TESTS_SYSTEM_CLIENT_MODULE_CLIENT_H
