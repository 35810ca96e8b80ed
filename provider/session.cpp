#include "provider/session.h"

#include <utility>

#include <openssl/core_names.h>
#include <openssl/params.h>

namespace provider {
namespace {

struct FreeList {
    void operator()(filestore_list* list) const { filestore_list_free(list); }
};
using List = std::unique_ptr<filestore_list, FreeList>;

Reason reasonOf(filestore_status status) {
    switch (status) {
        case FILESTORE_NO_MEMORY:
            return Reason::kNoMemory;
        case FILESTORE_USAGE:
        case FILESTORE_NOT_OPEN:
            return Reason::kNoPassword;
        case FILESTORE_WRONG_PASSWORD:
            return Reason::kWrongPassword;
        case FILESTORE_MISSING:
            return Reason::kNoRecord;
        case FILESTORE_BUSY:
            return Reason::kBusy;
        case FILESTORE_IO:
        case FILESTORE_MALFORMED:
        case FILESTORE_NO_DIGEST:
            return Reason::kDamaged;
        default:
            return Reason::kFailed;
    }
}

// What a program is asked for, and how.
struct Question {
    const Asking& asking;
    std::string text;
};

int ask(void* user, char* buffer, std::size_t capacity, std::size_t* length) {
    auto* const question = static_cast<Question*>(user);
    OSSL_PARAM info[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_PASSPHRASE_PARAM_INFO, question->text.data(), 0),
        OSSL_PARAM_construct_end()};
    return question->asking.callback(buffer, capacity, length, info, question->asking.argument) == 1
               ? 0
               : 1;
}

std::vector<Entry> entriesOf(const filestore_list* list) {
    std::vector<Entry> entries;
    for (std::size_t i = 0; i < filestore_list_count(list); ++i) {
        filestore_info info = FILESTORE_INFO_INIT;
        if (filestore_list_info(list, i, &info) == FILESTORE_OK) {
            entries.push_back({info.address, info.name, info.label, info.subject, info.kind});
        }
    }
    return entries;
}

}  // namespace

std::span<const unsigned char> Object::der() const noexcept {
    std::size_t size = 0;
    const void* const bytes = filestore_record_body(record_.get(), &size);
    return {static_cast<const unsigned char*>(bytes), size};
}

Session::Session(const Settings& settings) : settings_(settings), folder_(folderOf(settings)) {
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    filestore_db* db = nullptr;
    options.flags = FILESTORE_READ_ONLY;
    options.modules = settings.modules.empty() ? nullptr : settings.modules.c_str();
    if (filestore_open(folder_.c_str(), &options, &db, &error_) != FILESTORE_OK) {
        throw Failure(Reason::kNoDatabase, error_.message);
    }
    db_.reset(db);
}

void Session::fail(const std::string& what) const {
    throw Failure(reasonOf(error_.status),
                  what + " of the database in " + folder_ + ": " + error_.message);
}

void Session::unlock(const Asking& asking) {
    const KeyPlace place(settings_);
    filestore_key key = place.key();
    Question question{asking, "password of the database in " + folder_};
    if (place.isAsked()) {
        if (asking.callback == nullptr) {
            throw Failure(Reason::kNoPassword,
                          "the database in " + folder_ +
                              " is encrypted: give key-file or password-file in the "
                              "provider's section of openssl.cnf");
        }
        key.fill = ask;
        key.user = &question;
    }
    const filestore_status status = filestore_unlock(db_.get(), &key, nullptr, &error_);
    if (status != FILESTORE_OK) {
        const std::string from = key.path != nullptr ? std::string(" with ") + key.path : "";
        throw Failure(status == FILESTORE_MISSING ? Reason::kNoDatabase : reasonOf(status),
                      "unlocking the database in " + folder_ + from + ": " + error_.message);
    }
}

// Runs step(), once more behind an unlock() if it needs what is encrypted.
template <class Step>
filestore_status Session::unlocking(const Asking& asking, Step step) {
    const filestore_status status = step();
    if (status != FILESTORE_NOT_OPEN) {
        return status;
    }
    unlock(asking);
    return step();
}

Found Session::find(const std::string& uri, const Asking& asking) {
    Found found;
    filestore_list* list = nullptr;
    const filestore_status status = unlocking(asking, [&] {
        return filestore_find_uri(db_.get(), uri.c_str(), &found.kind, &list, &error_);
    });
    const List owner(list);
    if (status == FILESTORE_INVALID) {
        throw Failure(Reason::kBadReference, error_.message);
    }
    if (status != FILESTORE_OK && status != FILESTORE_PARTIAL) {
        fail(uri);
    }
    found.entries = entriesOf(list);
    return found;
}

Object Session::read(const std::string& address, const Asking& asking) {
    filestore_record* record = nullptr;
    const filestore_status status = unlocking(
        asking, [&] { return filestore_get(db_.get(), address.c_str(), 0, &record, &error_); });
    if (status != FILESTORE_OK) {
        fail(address);
    }
    filestore_info info = FILESTORE_INFO_INIT;
    (void)filestore_record_info(record, &info);
    Object object(record, info.kind);
    if (object.kind() != FILESTORE_CERTIFICATE && object.kind() != FILESTORE_CRL &&
        object.kind() != FILESTORE_PRIVATE_KEY) {
        throw Failure(Reason::kNotLoadable, address + " of the database in " + folder_ +
                                                " is no certificate, CRL or private key; `fstore "
                                                "export` and `fstore get` write it into a file");
    }
    return object;
}

}  // namespace provider
