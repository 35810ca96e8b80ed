#include "fstore/commands/record_json.h"

#include <fmt/format.h>

#include "lib/base/digits.h"
#include "lib/base/printable.h"
#include "lib/base/time.h"
#include "lib/records/attributes.h"
#include "lib/records/kept_type.h"

namespace fstore {
namespace {

void addText(Json& json, const char* name, const std::string& text) {
    if (!text.empty()) {
        json[name] = jsonText(text);
    }
}

std::uint32_t numberOf(const Record& record, unsigned int index) {
    return asNumber(kTypeNumber, record.bytes(index)).value_or(0);
}

}  // namespace

Json toJson(const RecordInfo& info) {
    const std::string address = info.address.print();
    Json json = {{"address", jsonText(address)}};
    if (!isUtf8(address)) {  // the bytes, which the text cannot tell
        json["addressBytes"] =
            toHex({reinterpret_cast<const unsigned char*>(address.data()), address.size()});
    }
    json["kind"] = nameOf(info.kind);
    addText(json, "label", info.label);
    addText(json, "subject", info.subject);
    addText(json, "issuer", info.issuer);
    addText(json, "serial", info.serial);
    if (info.notBefore) {
        json["notBefore"] = printTime(*info.notBefore);
    }
    if (info.notAfter) {
        json["notAfter"] = printTime(*info.notAfter);
        json["expired"] = *info.notAfter < now();
    }
    if (!info.altNames.empty()) {
        json["altNames"] = Json::array();
        for (const std::string& name : info.altNames) {
            json["altNames"].push_back(jsonText(name));
        }
    }
    addText(json, "keyAlgorithm", info.keyAlgorithm);
    addText(json, "keySha256", info.keySha256);
    addText(json, "sha256", info.sha256);
    // Of an encrypted one it is not stored.
    if (info.kind == Kind::kCertificate && (info.isCa || !info.bodyEncrypted)) {
        json["ca"] = info.isCa;
    }
    if (info.hasBody) {
        json["body"] = {{"size", info.bodySize}, {"encrypted", info.bodyEncrypted}};
    }
    return json;
}

Json attributesToJson(const Record& record) {
    Json all = Json::array();
    for (unsigned int i = 0; i < record.count(); ++i) {
        Json one = {{"id", record.id(i)}};
        if (const std::string_view name = attributeName(record.id(i)); !name.empty()) {
            one["name"] = name;
        }
        const unsigned int type = givenType(record, i);
        one["type"] = typeName(type);
        one["encrypted"] = record.isEncrypted(i);
        if (record.isKnown(i)) {
            one["value"] = jsonText(valueText(record, i));
            if (type == kTypeNumber) {
                one["number"] = numberOf(record, i);
            }
        }
        all.push_back(std::move(one));
    }
    return all;
}

Json errorToJson(const Failure& failure) {
    return {{"status", failure.exitCode()},
            {"name", nameOf(failure.exitCode())},
            {"message", jsonText(failure.what())}};
}

Json failureToJson(const std::string& address, const Failure& failure) {
    return {{"address", jsonText(address)}, {"error", errorToJson(failure)}};
}

std::string typeName(unsigned int type) {
    const std::string_view name = nameOfType(type);
    return name.empty() ? std::to_string(type) : std::string(name);
}

std::string valueText(const Record& record, unsigned int index) {
    if (!record.isKnown(index)) {
        return {};
    }
    const auto bytes = record.bytes(index);
    const unsigned int type = givenType(record, index);
    if (type == kTypeNumber) {
        return std::to_string(numberOf(record, index));
    }
    if (type == kTypeString || type == kTypeText || attr::isText(record.id(index))) {
        const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        return std::string(text.substr(0, text.find('\0')));
    }
    return toHex(bytes);
}

}  // namespace fstore
