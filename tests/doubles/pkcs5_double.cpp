// A double of the service 67 as a loadable module.
#include "api/base_module.h"
#include "client/cmn_abuf.h"
#include "client/pkixkeyclnt.h"
#include "cmn/export.h"
#include "cmn/id_type.h"
#include "modules/common/module_entry.h"
#include "tests/support/doubles/double_pkcs5.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(67);

namespace {

class Loadable final : public ServiceModule<DoublePkcs5> {
public:
    Loadable() : ServiceModule(kType) {}
};

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    return serveEntry<Loadable>(manager, flag, [] {
        theX509Cmn = X509CmnSrv();
        pkixKeyClnt = aPkixKeyClnt();
    });
}
