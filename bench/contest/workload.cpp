// A fixed amount of one kind of work of the store, for those who count instructions.
//
//     workload put|overwrite|read|list|remove COUNT FOLDER
//
// FOLDER must not exist. All records are there before the work that is counted, which
// runs between the marker functions.
#include <cstring>
#include <filesystem>

#include "bench/contest/contender.h"
#include "host/store_host.h"

namespace {

void work(Contender& store, const std::string& kind, std::size_t count) {
    Record record;
    if (kind == "list") {
        require(store.list() == count, "not all records are listed");
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (kind == "put") {
            store.put(makeRecord(count + i, 1));
        } else if (kind == "overwrite") {
            store.put(makeRecord(i, 1));
        } else if (kind == "read") {
            store.read(nameOfRecord(i % 100), record);
        } else if (kind == "remove") {
            store.remove(nameOfRecord(i));
        } else {
            throw std::runtime_error("no work of this name");
        }
    }
}

int run(const std::string& kind, std::size_t count, const char* folder) {
    StoreHost host;
    if (const Result started = host.start(); !started.ok()) {
        std::fprintf(stderr, "%s\n", started.message.c_str());
        return 1;
    }
    try {
        require(std::filesystem::create_directory(folder), "the folder exists already");
        std::filesystem::current_path(folder);
        const auto store = makeStore();
        store->create();
        store->fill(0, kind == "read" ? 100 : count);
        work(*store, kind, count);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
    return host.stop().ok() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s put|overwrite|read|list|remove COUNT FOLDER\n", argv[0]);
        return 2;
    }
    return run(argv[1], std::stoul(argv[2]), argv[3]);
}
