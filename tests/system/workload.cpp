// A fixed amount of one kind of work of the store, for scripts/check_instructions.py.
//
//     workload put|overwrite|read|list|remove COUNT FOLDER
//
// FOLDER must not exist. All that the work needs is there before countedWork() runs.
#include <cstring>
#include <filesystem>

#include "bench/contest/contender.h"
#include "host/store_host.h"

// Known by name to who counts, hence neither in line nor in a namespace.
[[gnu::noinline]] void countedWork(Contender& store, const std::string& kind, std::size_t count) {
    Record record = makeRecord(0, 1);
    if (kind == "list") {
        require(store.list() == count, "not all records are listed");
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        record.name = nameOfRecord(kind == "put" ? count + i : i);
        if (kind == "put" || kind == "overwrite") {
            store.put(record);
        } else if (kind == "read") {
            store.read(record.name, record);
        } else if (kind == "remove") {
            store.remove(record.name);
        } else {
            throw std::runtime_error("no work of this name");
        }
    }
}

namespace {

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
        store->fill(0, count);
        countedWork(*store, kind, count);
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
