#include "fstore/commands/request_options.h"

#include <fmt/format.h>

#include "fstore/commands/record_json.h"
#include "lib/pki/encode.h"

namespace fstore {

void addRequestText(Command& command, RequestText* target) {
    command.startGroup("What is asked for");
    command.option("--subject", "NAME", &target->subject,
                   "The holder: CN=www.example.com,O=Example");
    command.option("--san", "NAME", &target->altNames,
                   "A host or IP address that it is for; or DNS:, IP:, email:, URI: and a name; "
                   "once for each");
    command.option("--key-usage", "USAGE", &target->usages,
                   "What key and certificate are for: digitalSignature, serverAuth, ...");
    command.flag("--ca", &target->isCa, "A certificate that signs others");
    command.startGroup({});
}

bool isGiven(const RequestText& text) {
    return !text.subject.empty() || !text.altNames.empty() || !text.usages.empty() || text.isCa;
}

void openForRequest(std::optional<OutputFile>& file, const std::string& name, bool replace,
                    const Output& output) {
    if (!output.json() || name != kStandardStream) {
        file.emplace(name, replace);
    }
}

void report(const Generated& generated, std::optional<OutputFile>& file, Output& output) {
    Json records = Json::array();
    for (const Importer::Result& result : generated.records) {
        Json json = toJson(result.record);
        json["outcome"] = nameOf(result.outcome);
        records.push_back(std::move(json));
        output.note(fmt::format("{}: {}", nameOf(result.outcome), result.record.address.print()));
    }
    if (generated.namesNoHost) {
        output.warn(
            "it names no host: programs look at the alternative names alone, which --san "
            "gives");
    }
    Json document = {{"records", std::move(records)}};
    if (!generated.request.empty()) {
        const SecretBytes pem = pemOf(Kind::kRequest, generated.request);
        if (file) {
            file->write(pem);
            file->allow(kReadableByAll);  // a request has no secret, and is for somebody else
            file->commit();
        } else {
            document["request"] = std::string(pem.begin(), pem.end());
        }
    }
    output.document(document);
}

}  // namespace fstore
