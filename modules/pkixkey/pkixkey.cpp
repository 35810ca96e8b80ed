// The PKIX key service, module 0x3f0008: makes key objects.
#include <memory>

#include "api/t_key.h"
#include "client/cmn_abuf.h"
#include "cmn/export.h"
#include "modules/common/last_status.h"
#include "modules/common/module_entry.h"
#include "modules/pkixkey/key.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(0x3f0008);

namespace {

class PkixKeyService final : public ServiceModule<TPkixKeyService> {
public:
    PkixKeyService() : ServiceModule(0x3F0800) {}

    TKey* createTKey() override { return createTKey(TKey::kNone); }

    TKey* createTKey(TKey::key_type_t keyType) override {
        return recordedObject<TKey>([&](std::unique_ptr<TKey>& made) {
            if (!Key::isKnown(keyType)) {
                return kInvalid;
            }
            made = std::make_unique<Key>(keyType);
            return kOk;
        });
    }

    TKey* createTKey(TKey::key_type_t keyType, const unsigned char* data,
                     unsigned int len) override {
        return recordedObject<TKey>([&](std::unique_ptr<TKey>& made) {
            if (!Key::isKnown(keyType) || data == nullptr) {
                return kInvalid;
            }
            return Key::make(keyType, {data, len}, made);
        });
    }
};

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    return serveEntry<PkixKeyService>(manager, flag, x509cmn_fini);
}
