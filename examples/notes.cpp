// SPDX-License-Identifier: Apache-2.0
// Keeps notes that nobody else can read, through libfilestore: notes.c in C++, where owners give
// back what the library hands out.
//
//     notes FOLDER PASSWORD_FILE NAME [TEXT]
//
//     c++ -std=c++17 notes.cpp $(pkg-config --cflags --libs filestore-c) -o notes
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include <filestore/filestore.h>

namespace {

struct GiveBack {
    void operator()(filestore_db* db) const { filestore_close(db); }
    void operator()(filestore_record* record) const { filestore_record_free(record); }
};
using Db = std::unique_ptr<filestore_db, GiveBack>;
using Record = std::unique_ptr<filestore_record, GiveBack>;

class Failure : public std::runtime_error {
public:
    explicit Failure(const filestore_error& error)
        : std::runtime_error(error.message), status(error.status) {}

    const filestore_status status;
};

// Calls function(arguments..., the error object), and throws what that says.
template <class Function, class... Arguments>
void call(Function function, Arguments... arguments) {
    filestore_error error = FILESTORE_ERROR_INIT;
    if (function(arguments..., &error) != FILESTORE_OK) {
        throw Failure(error);
    }
}

Db open(const char* folder, const char* passwordFile) {
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    options.flags = FILESTORE_CREATE;
    filestore_db* handle = nullptr;
    call(filestore_open, folder, &options, &handle);
    Db db(handle);
    filestore_key key = FILESTORE_KEY_INIT;
    key.path = passwordFile;
    call(filestore_unlock, db.get(), &key, nullptr);
    return db;
}

void store(const Db& db, const std::string& address, std::string_view text) {
    filestore_record* handle = nullptr;
    call(filestore_record_new, address.c_str(), &handle);
    const Record record(handle);
    call(filestore_record_set_body, record.get(), text.data(), text.size(), 0);
    call(filestore_put, db.get(), record.get(), 0);
}

void print(const Db& db, const std::string& address) {
    filestore_record* handle = nullptr;
    call(filestore_get, db.get(), address.c_str(), 0, &handle);
    const Record record(handle);
    size_t size = 0;
    const void* const body = filestore_record_body(record.get(), &size);
    std::fwrite(body, 1, size, stdout);
    std::putchar('\n');
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc < 4 || argc > 5) {
        std::fprintf(stderr, "usage: notes FOLDER PASSWORD_FILE NAME [TEXT]\n");
        return FILESTORE_USAGE;
    }
    const Db db = open(argv[1], argv[2]);
    const std::string address = std::string("settings/") + argv[3];
    if (argc == 5) {
        store(db, address, argv[4]);
    } else {
        print(db, address);
    }
    return 0;
} catch (const Failure& failure) {
    std::fprintf(stderr, "notes: %s\n", failure.what());
    return failure.status;
}
