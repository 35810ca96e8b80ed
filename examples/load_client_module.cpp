// SPDX-License-Identifier: Apache-2.0
// Loads the store, and twice the module of client_module.cpp; then reads the record
// that it keeps.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "host/store_host.h"

int main() {
    StoreHost::Setup setup;
    setup.modules.emplace_back("visit_counter.so");
    for (int visit = 1; visit <= 2; ++visit) {
        StoreHost host;
        if (const Result started = host.start(setup); !started.ok()) {
            std::fprintf(stderr, "%s\n", started.message.c_str());
            return 1;
        }
        aFileStore record;
        std::uint32_t visits = 0;
        if (record.setFolderName("./db/settings") != kOk || record.setName("visits") != kOk ||
            record.read() != kOk || record.getAttrSize(0) != sizeof visits) {
            std::fputs("no visits are recorded\n", stderr);
            return 1;
        }
        std::memcpy(&visits, record.getAttr(0), sizeof visits);
        std::printf("visits: %u\n", static_cast<unsigned int>(visits));
    }
    return 0;
}
