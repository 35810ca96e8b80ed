// What `generate` and `request` share: what is asked for, and where the request goes.
#ifndef FSTORE_COMMANDS_REQUEST_OPTIONS_H
#define FSTORE_COMMANDS_REQUEST_OPTIONS_H

#include <optional>
#include <string>

#include "fstore/commands/cli.h"
#include "lib/base/files.h"
#include "lib/pki/request.h"
#include "lib/work/generate.h"

namespace fstore {

// --subject, --san, --key-usage and --ca.
void addRequestText(Command& command, RequestText* target);

// Whether any of these was given.
bool isGiven(const RequestText& text);

// Opens the file for a request, before the database is changed; none where the document of --json
// has it.
void openForRequest(std::optional<OutputFile>& file, const std::string& name, bool replace,
                    const Output& output);

// Says what was stored, and writes the request, if there is one, as PEM.
void report(const Generated& generated, std::optional<OutputFile>& file, Output& output);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_REQUEST_OPTIONS_H
