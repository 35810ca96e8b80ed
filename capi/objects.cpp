// Certificates, keys, CRLs and requests, in and out.
#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "capi/arguments.h"
#include "capi/blocks.h"
#include "capi/db.h"
#include "capi/key.h"
#include "capi/lists.h"
#include "lib/pki/decode.h"
#include "lib/records/catalogue.h"
#include "lib/work/export.h"
#include "lib/work/import.h"

using fstore::ExportRules;
using fstore::Failure;
using fstore::Importer;
using fstore::ImportRules;
using fstore::PkiObject;
using fstore::PkiPart;
using fstore::SecretText;

namespace {

// The password for what goes in or out, read when it is needed for the first time.
class FilePassword {
public:
    explicit FilePassword(const filestore_key* key) {
        if (key != nullptr) {
            key_ = capi::acceptedPassword(key);
        }
    }

    const SecretText& get() {
        if (!key_) {
            throw Failure(fstore::kUsage, "a password is needed, and none was given");
        }
        if (!text_) {
            text_ = capi::readKey(*key_);
        }
        return *text_;
    }

private:
    std::optional<filestore_key> key_;
    std::optional<SecretText> text_;
};

ImportRules rulesOf(const filestore_import_options& options) {
    capi::requireFlags(options.flags, FILESTORE_IMPORT_REPLACE | FILESTORE_IMPORT_ENCRYPT);
    ImportRules rules;
    if (options.folder != nullptr) {
        rules.folder = fstore::parseFolder(options.folder);
    }
    rules.name = capi::optionalText(options.name);
    rules.label = options.label != nullptr ? options.label : "";
    rules.replace = (options.flags & FILESTORE_IMPORT_REPLACE) != 0;
    rules.encrypt = (options.flags & FILESTORE_IMPORT_ENCRYPT) != 0;
    requireName(rules);
    return rules;
}

// The parts of the bytes, in the order of their import.
std::vector<PkiPart> partsOf(std::span<const unsigned char> bytes, FilePassword& password) {
    if (bytes.size() > fstore::kMostInput) {
        throw Failure(kInvalid, "there are more than 64 MiB to import");
    }
    std::vector<PkiPart> parts =
        fstore::decodePki(bytes, [&]() -> const SecretText& { return password.get(); });
    std::ranges::stable_sort(parts, {}, &fstore::importRank);
    return parts;
}

std::uint32_t outcomeOf(Importer::Outcome outcome) {
    switch (outcome) {
        case Importer::Outcome::kAdded:
            return FILESTORE_ADDED;
        case Importer::Outcome::kPresent:
            return FILESTORE_PRESENT;
        case Importer::Outcome::kMoved:
            return FILESTORE_MOVED;
        case Importer::Outcome::kReplaced:
            break;
    }
    return FILESTORE_REPLACED;
}

// What becomes of the parts, and the first failure among them.
class Report {
public:
    Report() : list_(std::make_unique<filestore_list>()) {}

    void done(Importer::Result result) {
        const bool readable = !result.record.bodyEncrypted;
        list_->entries.emplace_back(std::move(result.record), readable, outcomeOf(result.outcome));
    }
    void failed(const Failure& failure, const PkiPart& part) {
        if (!first_) {
            first_ = failure;
        }
        list_->add(FILESTORE_FAILED, failure, failure.path(), part.line);
    }
    void skipped(const fstore::Skipped& skipped, const PkiPart& part) {
        list_->problems.push_back({FILESTORE_SKIPPED, FILESTORE_OK, "", skipped.reason, part.line});
    }

    // Throws the first failure when nothing was done.
    filestore_status finish(filestore_list** list) {
        if (list_->entries.empty() && first_) {
            throw Failure(*first_);
        }
        if (list != nullptr) {
            *list = list_.release();
        }
        return first_ ? FILESTORE_PARTIAL : FILESTORE_OK;
    }

private:
    std::unique_ptr<filestore_list> list_;
    std::optional<Failure> first_;
};

void importObjects(fstore::Database& database, const ImportRules& rules,
                   const std::vector<PkiPart>& parts, Report& report) {
    std::vector<const PkiObject*> objects;
    for (const PkiPart& part : parts) {
        if (const auto* const object = std::get_if<PkiObject>(&part.content)) {
            objects.push_back(object);
        }
    }
    if (objects.empty()) {
        return;
    }
    const fstore::Hold hold = enterForImport(database, rules, objects);
    Importer importer(database, rules, objects);
    fstore::Progress progress(database.observer(), "Importing", objects.size());
    for (const PkiPart& part : parts) {
        const auto* const object = std::get_if<PkiObject>(&part.content);
        if (object == nullptr) {
            continue;
        }
        try {
            report.done(importer.import(*object, part.label));
        } catch (const Failure& failure) {
            report.failed(failure, part);
        }
        progress.step();
    }
}

ExportRules rulesOf(const filestore_export_options& options) {
    capi::requireFlags(options.flags, FILESTORE_EXPORT_CHAIN | FILESTORE_EXPORT_PLAIN);
    capi::require(options.format <= FILESTORE_PKCS12, "no such format");
    ExportRules rules;
    rules.format = static_cast<ExportRules::Format>(options.format);
    rules.chain = (options.flags & FILESTORE_EXPORT_CHAIN) != 0;
    rules.plain = (options.flags & FILESTORE_EXPORT_PLAIN) != 0;
    return rules;
}

}  // namespace

extern "C" {

filestore_status filestore_import(filestore_db* db, const void* bytes, size_t size,
                                  const filestore_import_options* options, filestore_list** list,
                                  const filestore_callbacks* callbacks, filestore_error* error) {
    return capi::operation(error, [&] {
        if (list != nullptr) {
            *list = nullptr;
        }
        const filestore_import_options own =
            capi::accepted(options, filestore_import_options(FILESTORE_IMPORT_OPTIONS_INIT));
        ImportRules rules = rulesOf(own);
        FilePassword password(own.password);
        capi::Handle& handle = capi::handleOf(db);
        handle.requireWritable();
        rules.unlock = handle.hasKey();
        const std::vector<PkiPart> parts = partsOf(capi::bytesOf(bytes, size), password);
        capi::Lease lease(handle, callbacks);
        Report report;
        importObjects(lease.database(), rules, parts, report);
        for (const PkiPart& part : parts) {
            if (const auto* const failure = std::get_if<Failure>(&part.content)) {
                report.failed(*failure, part);
            } else if (const auto* const skipped = std::get_if<fstore::Skipped>(&part.content)) {
                report.skipped(*skipped, part);
            }
        }
        return report.finish(list);
    });
}

filestore_status filestore_export(filestore_db* db, const char* address,
                                  const filestore_export_options* options, void** bytes,
                                  size_t* size, const filestore_callbacks* callbacks,
                                  filestore_error* error) {
    return capi::operation(error, [&] {
        capi::require(bytes != nullptr && size != nullptr, "bytes or size is null");
        *bytes = nullptr;
        *size = 0;
        const filestore_export_options own =
            capi::accepted(options, filestore_export_options(FILESTORE_EXPORT_OPTIONS_INIT));
        const ExportRules rules = rulesOf(own);
        FilePassword password(own.password);
        const std::string text = capi::requireText(address, "the address is null");
        capi::Lease lease(capi::handleOf(db), callbacks);
        const fstore::Selection selection = withSecrets(
            lease.database(), fstore::Access::kRead,
            [&] { return selectForExport(lease.database(), fstore::resolve(text), rules); });
        const SecretText* const secret = isEncrypted(selection, rules) ? &password.get() : nullptr;
        const SecretBytes encoded = encode(selection, rules, secret);
        for (const std::string& warning : warningsOf(selection)) {
            lease.observer().warn(warning);
        }
        *bytes = capi::blockOf(encoded);
        *size = encoded.size();
        return FILESTORE_OK;
    });
}

}  // extern "C"
