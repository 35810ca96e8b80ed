// A double of the service 111 as a loadable module.
#include "api/base_module.h"
#include "cmn/export.h"
#include "cmn/id_type.h"
#include "modules/common/module_entry.h"
#include "tests/support/doubles/double_x509cmn.h"

CMN_BUILT_FIRST constinit Tuint32ID ModuleID(111);

namespace {

class Loadable final : public ServiceModule<DoubleX509Cmn> {
public:
    Loadable() : ServiceModule(kType) {}
};

}  // namespace

BaseModuleInterface* GetInterfaceClass(TModuleManager* manager, int flag) {
    return serveEntry<Loadable>(manager, flag, [] {});
}
