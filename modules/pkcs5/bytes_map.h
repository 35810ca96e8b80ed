// The map from byte strings to byte strings: api/pkcs5_i.h says what it promises.
// Keys and values stand in memory that is wiped.
#ifndef MODULES_PKCS5_BYTES_MAP_H
#define MODULES_PKCS5_BYTES_MAP_H

#include <map>
#include <shared_mutex>

#include "api/pkcs5_i.h"
#include "modules/common/wiped_bytes.h"

class BytesMap final : public HashMap {
public:
    static constexpr unsigned int kType = 0x430003;  // module 67, kind 3

    BytesMap() : HashMap(kType) {}

    Status init() override { return kOk; }
    Status fini() override { return kOk; }

    Status add(TBuf* key, TBuf* value) override;
    TBuf* find(TBuf* key) override;

private:
    struct Before {
        bool operator()(const WipedBytes& left, const WipedBytes& right) const;
    };

    std::shared_mutex mutex_;  // guards values_
    std::map<WipedBytes, WipedBytes, Before> values_;
};

#endif  // MODULES_PKCS5_BYTES_MAP_H
