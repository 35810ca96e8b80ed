#include "lib/work/generate.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

#include <fmt/format.h>

#include "format/layout.h"
#include "lib/base/error.h"
#include "lib/base/time.h"
#include "lib/pki/object.h"
#include "lib/records/catalogue.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"
#include "lib/work/find.h"
#include "lib/work/meant.h"
#include "lib/work/object_record.h"
#include "lib/work/uri.h"

namespace fstore {
namespace {

constexpr std::array<std::string_view, 4> kAltNameKinds = {"DNS:", "IP:", "email:", "URI:"};

RequestText withKinds(RequestText text) {
    for (std::string& name : text.altNames) {
        name = altNameOf(name);
    }
    return text;
}

Address placeOf(Kind kind, const std::string& name) {
    return {std::string(folderFor(kind, true)), name};
}

void requireNameOf(const GenerateRules& rules) {
    if (rules.name.find('/') != std::string::npos) {
        throw Failure(kInvalid, fmt::format("\"{}\" is not a name of new records: each goes to the "
                                            "folder of its kind, so it has no \"/\"",
                                            rules.name));
    }
    requireName({.name = rules.name});
}

// Also what goes with a key has its name, now or later.
void refuseTaken(const std::string& name) {
    for (const Kind kind : {Kind::kKey, Kind::kCertificate, Kind::kRequest}) {
        const Address place = placeOf(kind, name);
        if (Record::isThere(place)) {
            throw Failure(kInvalid, fmt::format("{} already exists", place.print()),
                          Advice{kind == Kind::kKey ? "take another name, or `fstore request` "
                                                      "makes a request for the key that is there"
                                                    : "take another name"},
                          place.print());
        }
        refusePattern(place);
    }
}

std::vector<const PkiObject*> pointersTo(const std::vector<PkiObject>& objects) {
    std::vector<const PkiObject*> pointers;
    pointers.reserve(objects.size());
    for (const PkiObject& object : objects) {
        pointers.push_back(&object);
    }
    return pointers;
}

// The new key, and behind it what it signs.
std::vector<PkiObject> makeObjects(const GenerateRules& rules,
                                   const std::optional<RequestContent>& content,
                                   Observer& observer) {
    std::vector<PkiObject> objects;
    objects.push_back(
        readPkiObject(Kind::kKey, newKey(rules.type, [&] { return observer.isCancelled(); })));
    const SecretBytes key = objects.front().der;
    if (rules.selfSignedDays) {
        objects.push_back(readPkiObject(
            Kind::kCertificate,
            content->selfSigned(key, static_cast<unsigned int>(*rules.selfSignedDays))));
    }
    if (rules.request) {
        objects.push_back(readPkiObject(Kind::kRequest, content->request(key)));
    }
    return objects;
}

bool isOf(const RecordInfo& info, const std::string& keySha256) {
    return (info.kind == Kind::kCertificate || info.kind == Kind::kRequest) &&
           info.keySha256 == keySha256;
}

// The certificates and requests of the key.
std::vector<RecordInfo> madeWith(Database& database, const RecordInfo& key) {
    FindRules rules;
    rules.secrets = true;
    std::vector<RecordInfo> found = findRecords(database, rules).records;
    std::erase_if(found, [&](const RecordInfo& info) { return !isOf(info, key.keySha256); });
    return found;
}

// The newest certificate or else request of the key, for what it asks for.
RequestContent contentLikeLast(Database& database, const RecordInfo& key,
                               const std::vector<RecordInfo>& found) {
    const auto last = std::ranges::max_element(found, {}, [time = now()](const RecordInfo& info) {
        // One that is not in force yet may never be.
        const bool hasBegun = info.notBefore && *info.notBefore <= time;
        return std::tuple(info.kind == Kind::kCertificate, hasBegun, info.notBefore, info.imported);
    });
    if (last == found.end()) {
        throw Failure(kMissing,
                      fmt::format("there is no certificate and no request of {} to make one like",
                                  key.address.print()),
                      Advice{"--subject and --san say what to ask for"}, key.address.print());
    }
    const Record record = readObject(database, last->address);
    return {last->kind, record.body()};
}

// A name alone is that of a key; what was made for it has the same name in other folders.
Address resolveKey(const std::string& text) {
    const AddressText meant = parseAddress(text);
    const Address place = placeOf(Kind::kKey, meant.place.name);
    const bool isKeyName = meant.form == AddressText::Form::kBare && Record::isThere(place);
    return isKeyName ? place : resolve(text);
}

struct Signed {
    RecordInfo key;
    PkiObject request;
    bool namesNoHost = false;
    std::int64_t lastCertificate = 0;  // when it was imported
};

// A certificate that came in the second of the request, or later, answers it; times have no
// fractions. So the request waits for the end of a second in which one came before.
void leaveSecond(std::int64_t second) {
    constexpr std::chrono::milliseconds kPause(10);
    while (now() == second) {
        std::this_thread::sleep_for(kPause);
    }
}

Signed signRequest(Database& database, const std::string& text,
                   const std::optional<RequestContent>& content) {
    const Record record = readObject(database, resolveKey(text));
    Signed result;
    result.key = infoOf(record);
    if (result.key.kind != Kind::kKey) {
        throw Failure(kInvalid,
                      fmt::format("{} is a {}, not a key", result.key.address.print(),
                                  nameOf(result.key.kind)),
                      result.key.address.print());
    }
    const auto sign = [&](const RequestContent& asked) {
        result.request = readPkiObject(Kind::kRequest, asked.request(record.body()));
        result.namesNoHost = !asked.hasAltNames();
    };
    const std::vector<RecordInfo> found = madeWith(database, result.key);
    for (const RecordInfo& info : found) {
        if (info.kind == Kind::kCertificate && info.subject != info.issuer) {
            result.lastCertificate = std::max(result.lastCertificate, info.imported.value_or(0));
        }
    }
    if (content) {
        sign(*content);
    } else {
        sign(contentLikeLast(database, result.key, found));
    }
    return result;
}

// A request of the same key is out of date with the new one; anything else is not ours to replace.
void refuseOther(Database& database, const Address& place, const std::string& keySha256) {
    if (!Record::isThere(place)) {
        return;
    }
    const RecordInfo info = infoOf(readObject(database, place));
    if (info.kind != Kind::kRequest || info.keySha256 != keySha256) {
        throw Failure(
            kInvalid,
            fmt::format("{} already exists and is not a request of this key", place.print()),
            Advice{"`fstore mv` gives it another name"}, place.print());
    }
}

}  // namespace

namespace {

// An address with a typing error would become a name that nobody can have.
void refuseNumbers(const std::string& host) {
    const std::string last = host.substr(host.rfind('.') + 1);  // npos + 1 is 0
    if (!isIpAddress(host) && last.find_first_not_of("0123456789") == std::string::npos) {
        throw Failure(kInvalid,
                      fmt::format("\"{}\" is neither a host name nor an IP address", host));
    }
}

// Graphic characters of ASCII, as certificates have it.
bool isGraphic(std::string_view text) {
    return std::ranges::all_of(text, [](char c) { return c > ' ' && c < 0x7F; });
}

void refuseOddMailbox(const std::string& mailbox) {
    const std::size_t at = mailbox.rfind('@');
    const bool hasParts = at != std::string::npos && at != 0 && at + 1 != mailbox.size();
    if (!hasParts || !isGraphic(mailbox)) {
        throw Failure(kInvalid, fmt::format("\"{}\" is not an e-mail address", mailbox));
    }
    (void)hostNameOf(mailbox.substr(at + 1));
}

// A scheme, and something behind it.
void refuseOddUri(const std::string& uri) {
    constexpr std::string_view kScheme =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+-.";
    const std::size_t colon = uri.find_first_not_of(kScheme);
    const bool hasScheme = colon != 0 && colon != std::string::npos && uri[colon] == ':' &&
                           (uri[0] < '0' || uri[0] > '9');
    if (!hasScheme || colon + 1 == uri.size() || !isGraphic(uri)) {
        throw Failure(kInvalid,
                      fmt::format("\"{}\" is not a URI, which is like https://example.com/", uri));
    }
}

std::string hostOf(const std::string& text) {
    std::string host = hostNameOf(text);
    refuseNumbers(host);
    return host;
}

}  // namespace

std::string altNameOf(const std::string& text) {
    for (const std::string_view kind : kAltNameKinds) {
        if (text.starts_with(kind)) {
            const bool isHost = kind == "DNS:" || kind == "IP:";
            const std::string value = text.substr(kind.size());
            if (kind == "email:") {
                refuseOddMailbox(value);
            } else if (kind == "URI:") {
                refuseOddUri(value);
            }
            return isHost ? std::string(kind) + hostOf(value) : text;
        }
    }
    const std::string host = hostOf(text);
    return (isIpAddress(host) ? "IP:" : "DNS:") + host;
}

Generated generate(Database& database, const GenerateRules& rules) {
    requireNameOf(rules);
    std::optional<RequestContent> content;
    if (rules.request || rules.selfSignedDays) {
        content.emplace(withKinds(rules.content));
    }
    {
        // So that nobody waits for a long key in vain.
        const Hold hold = database.enter(Access::kRead, Need::kRecords);
        refuseTaken(rules.name);
    }
    const std::vector<PkiObject> objects = makeObjects(rules, content, database.observer());
    const std::vector<const PkiObject*> pointers = pointersTo(objects);
    const ImportRules importRules{.name = rules.name, .label = rules.label};
    const Hold hold = enterForImport(database, importRules, pointers);
    refuseTaken(rules.name);
    Importer importer(database, importRules, pointers);
    Generated generated;
    for (const PkiObject& object : objects) {
        generated.records.push_back(importer.import(object, {}));
    }
    if (rules.request) {
        generated.request = objects.back().der;
    }
    generated.namesNoHost = content && !content->hasAltNames() && !rules.content.isCa;
    return generated;
}

Generated requestFor(Database& database, const std::string& key,
                     const std::optional<RequestText>& content) {
    std::optional<RequestContent> asked;
    if (content) {
        asked.emplace(withKinds(*content));
    }
    const Signed made = withSecrets(
        database, Access::kRead, [&] { return signRequest(database, key, asked); }, Need::kSecrets);
    leaveSecond(made.lastCertificate);
    const ImportRules rules{
        .name = made.key.address.name, .label = made.key.label, .replace = true};
    const Hold hold = enterForImport(database, rules, {&made.request});
    refuseOther(database, placeOf(Kind::kRequest, *rules.name), made.key.keySha256);
    Importer importer(database, rules, {&made.request});
    Generated generated;
    generated.records.push_back(importer.import(made.request, {}));
    generated.request = made.request.der;
    generated.namesNoHost = content && !content->isCa && made.namesNoHost;
    return generated;
}

}  // namespace fstore
