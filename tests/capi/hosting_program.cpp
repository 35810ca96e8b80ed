// A program that hosts the store's modules itself, as the application does that they were made for,
// and then meets the C library in a plugin: two copies that do not see each other.
//
//     hosting_program LIBRARY FOLDER
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "capi/filestore.h"
#include "client/file_store_exp.h"
#include "client/s_filestoreC.h"
#include "host/store_host.h"

namespace {

void* library = nullptr;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "hosting_program: %s\n", what.c_str());
    std::exit(1);
}

void must(bool done, const std::string& what) {
    if (!done) {
        fail(what);
    }
}

template <class Function>
Function* find(const char* name, Function*) {
    auto* const found = reinterpret_cast<Function*>(dlsym(library, name));
    must(found != nullptr, name);
    return found;
}
#define CALL(name) find(#name, static_cast<decltype(&name)>(nullptr))

// Through the library, in the folder `path`.
void useLibrary(const char* path) {
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    options.flags = FILESTORE_CREATE;
    options.cost = 14;
    filestore_key key = FILESTORE_KEY_INIT;
    key.bytes = "library";
    key.length = 7;
    filestore_db* db = nullptr;
    filestore_record* record = nullptr;
    must(CALL(filestore_open)(path, &options, &db, &error) == FILESTORE_OK, error.message);
    must(CALL(filestore_unlock)(db, &key, nullptr, &error) == FILESTORE_OK, error.message);
    must(CALL(filestore_record_new)("keys/a", &record, &error) == FILESTORE_OK, error.message);
    must(CALL(filestore_record_set_body)(record, "body", 4, 0, &error) == FILESTORE_OK,
         error.message);
    must(CALL(filestore_put)(db, record, 0, &error) == FILESTORE_OK, error.message);
    CALL(filestore_record_free)(record);
    CALL(filestore_close)(db);
}

// Through the program's own proxies, in its own folder.
void useOwn(aFileStoreSrv& service) {
    must(service.isOpen() != 0, "the program's own database was closed");
    aFileStore record;
    must(record.setFolderName("./db/keys") == kOk && record.setName("own") == kOk, "own record");
    must(record.read() == kOk && record.decrypt() == kOk && record.getBodySize() == 3,
         "the program's own record");
}

}  // namespace

int main(int argc, char** argv) {
    must(argc == 3, "usage");
    StoreHost host;
    aFileStoreSrv service;
    must(host.start().ok(), "the program's own modules");
    must(service.prepareDBFolders() == kOk && service.open("") == kOk, "the program's own open");
    aFileStore record;
    must(record.setFolderName("./db/keys") == kOk && record.setName("own") == kOk, "own record");
    must(record.setBody(reinterpret_cast<const unsigned char*>("own"), 3) == kOk &&
             record.setBodyFlag(1) == kOk && record.write() == kOk,
         "the program's own write");
    library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    must(library != nullptr, "dlopen");
    for (int i = 0; i < 3; ++i) {
        useLibrary(argv[2]);
        useOwn(service);
    }
    must(dlclose(library) == 0, "dlclose");
    useOwn(service);
    std::puts("two copies");
    return 0;
}
