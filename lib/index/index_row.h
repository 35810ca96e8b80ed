// What the index knows of one descriptor. No secret: only what the descriptor says in plain form.
//
// For one thread, inside the folder of a database.
#ifndef LIB_INDEX_INDEX_ROW_H
#define LIB_INDEX_INDEX_ROW_H

#include <string>

#include "lib/index/stamps.h"
#include "lib/records/address.h"
#include "lib/records/record_info.h"

namespace fstore {

// Why a record has to be looked at itself, as bits.
struct Look {
    static constexpr unsigned int kAlways = 1;    // damaged, or not to be kept in a row
    static constexpr unsigned int kUnlocked = 2;  // has encrypted parts: when the database is open
    static constexpr unsigned int kUndated = 4;   // when expiry is asked for: lacksExpiry()
    static constexpr unsigned int kHidden = 8;    // its digests or kind are encrypted: as kUnlocked
    static constexpr unsigned int kAll = 15;
};

struct IndexRow {
    std::string file;  // the descriptor's, with its marker
    FileStamp stamp;
    bool isRecord = false;       // no marker, and none of the internal ones
    bool isBodyUnknown = false;  // as of BodyOwners: it may name any body
    unsigned int look = 0;
    std::string body;  // empty for none
    RecordInfo info;   // of a record that can be read; its address is left out
};

// Of the descriptor as it is now; what cannot be read has a row as well.
IndexRow readIndexRow(const std::string& folder, const std::string& file);

// Its stamp if the row can be relied on for as long as the file has it.
FileStamp lastingStamp(const std::string& path);

}  // namespace fstore

#endif  // LIB_INDEX_INDEX_ROW_H
