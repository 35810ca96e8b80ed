#include "tests/modules/loaded_module.h"

#include <dlfcn.h>

#include <stdexcept>

#include "cmn/id_type.h"

namespace {

std::string pathOf(const std::string& name) {
    return MODULE_FOLDER "/" + name + ".so";
}

}  // namespace

LoadedModule::LoadedModule(FakeHost& host, const std::string& name, unsigned int id)
    : host_(host), id_(id), library_(dlopen(pathOf(name).c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (library_ == nullptr) {
        throw std::runtime_error(dlerror());
    }
    module_ = symbol<decltype(GetInterfaceClass)>("GetInterfaceClass")(&host_, 0);
    if (module_ == nullptr) {
        throw std::runtime_error(name + " does not start");
    }
    service_ = module_->getService(Tuint32ID(id));
    host_.offer(id_, service_);
}

LoadedModule::~LoadedModule() {
    symbol<decltype(GetInterfaceClass)>("GetInterfaceClass")(nullptr, 0);
    host_.withdraw(id_);
    delete module_;
    dlclose(library_);
}

void* LoadedModule::find(const char* name) const {
    void* const found = dlsym(library_, name);
    if (found == nullptr) {
        throw std::runtime_error(dlerror());
    }
    return found;
}

bool LoadedModule::isMapped(const std::string& name) {
    void* const library = dlopen(pathOf(name).c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library);
    }
    return library != nullptr;
}
