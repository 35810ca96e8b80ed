// SPDX-License-Identifier: Apache-2.0
// Stores a key, encrypted, and reads it back. The database is made in the current
// folder; its password is empty until recrypt() gives it another.
#include <cstdio>
#include <cstring>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "host/store_host.h"

int main() {
    StoreHost host;  // loads the modules, and outlives every handle
    if (const Result started = host.start(); !started.ok()) {
        std::fprintf(stderr, "%s\n", started.message.c_str());
        return 1;
    }
    aFileStoreSrv store;
    if (store.prepareDBFolders() != kOk || store.open("") != kOk) {
        std::fputs("the database does not open\n", stderr);
        return 1;
    }
    constexpr unsigned char kKey[] = "sixteen key bytes";
    aFileStore key;
    const bool written = key.setFolderName("./db/keys") == kOk && key.setName("alice") == kOk &&
                         key.setBody(kKey, sizeof kKey) == kOk &&
                         key.setBodyFlag(1) == kOk &&  // encrypted on disk
                         key.write() == kOk;           // and durable when this returns

    aFileStore found;
    const bool read = found.setFolderName("./db/keys") == kOk && found.setName("alice") == kOk &&
                      found.read() == kOk && found.decrypt() == kOk &&
                      found.getBodySize() == sizeof kKey &&
                      std::memcmp(found.getBody(), kKey, sizeof kKey) == 0;
    std::puts(written && read ? "alice's key is stored" : "alice's key is lost");
    return written && read ? 0 : 1;
}
