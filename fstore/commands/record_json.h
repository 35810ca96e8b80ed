// Records in JSON documents.
#ifndef FSTORE_COMMANDS_RECORD_JSON_H
#define FSTORE_COMMANDS_RECORD_JSON_H

#include "fstore/terminal/json.h"
#include "lib/base/error.h"
#include "lib/records/record.h"
#include "lib/records/record_info.h"

namespace fstore {

// A record in a listing: what is not known is left out.
Json toJson(const RecordInfo& info);

// All attributes: id, name, type, value, and whether it is encrypted. One that cannot be read
// now has no value.
Json attributesToJson(const Record& record);

// {"status": ..., "name": ..., "message": ...}
Json errorToJson(const Failure& failure);

// {"address": ..., "error": {...}} for a record that could not be processed.
Json failureToJson(const std::string& address, const Failure& failure);

// "number", "binary", "string", "text"; the number of any other type.
std::string typeName(unsigned int type);

// The value as a person reads it: a number in decimal, bytes as digits, a text as it
// is; empty while it cannot be read.
std::string valueText(const Record& record, unsigned int index);

}  // namespace fstore

#endif  // FSTORE_COMMANDS_RECORD_JSON_H
