// A double of the service 0x3f0008 as a loadable module.
#include "api/base_module.h"
#include "client/cmn_abuf.h"
#include "cmn/export.h"
#include "cmn/id_type.h"
#include "modules/common/module_entry.h"
#include "tests/support/doubles/double_pkixkey.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(0x3f0008);

namespace {

class Loadable final : public ServiceModule<DoubleKeyService> {
public:
    Loadable() : ServiceModule(kType) {}
};

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    return serveEntry<Loadable>(manager, flag, [] { theX509Cmn = X509CmnSrv(); });
}
