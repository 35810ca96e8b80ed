// The PKCS#5 service, module 67: makes encryption schemes, key derivations and maps.
#include <memory>

#include "api/pkcs5_i.h"
#include "client/cmn_abuf.h"
#include "client/pkixkeyclnt.h"
#include "cmn/export.h"
#include "modules/common/last_status.h"
#include "modules/common/module_entry.h"
#include "modules/pkcs5/bytes_map.h"
#include "modules/pkcs5/p12_pbkdf.h"
#include "modules/pkcs5/pbes.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(67);

namespace {

class Pkcs5Service final : public ServiceModule<PKCS5_Interface> {
public:
    Pkcs5Service() : ServiceModule(0x430000) {}

    using ModuleAnswers::createObject;  // the host's, beside the service's
    CMN_GuardedRef* createObject(objectName_t name) override {
        return recordedObject<CMN_GuardedRef>([&](std::unique_ptr<CMN_GuardedRef>& made) {
            switch (name) {
                case kPbes0:
                    made = std::make_unique<Pbes>(PBES::kPbkdf2);
                    return kOk;
                case kPbes1:
                    made = std::make_unique<Pbes>(PBES::kPkcs12);
                    return kOk;
                case kP12Pbkdf:
                    made = std::make_unique<P12Pbkdf>();
                    return kOk;
                case kHashMap:
                    made = std::make_unique<BytesMap>();
                    return kOk;
            }
            return kInvalid;
        });
    }
};

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    return serveEntry<Pkcs5Service>(manager, flag, [] {
        x509cmn_fini();
        pkixKeyClnt = aPkixKeyClnt();
    });
}
