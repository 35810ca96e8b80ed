#include "host/store_host.h"

#include <dlfcn.h>

#include <cstdlib>
#include <memory>
#include <string_view>

#include "cmn/no_throw.h"
#include "os/files.h"
#include "os/fs.h"

namespace {

constexpr const char* kVariable = "FILESTORE_MODULES";

// The folder of the file at `path`, whatever links lead there; empty when there is none.
std::string folderOf(const char* path) {
    const std::unique_ptr<char, void (*)(void*)> real(os::realpath(path, nullptr), std::free);
    if (real == nullptr) {
        return {};
    }
    const std::string_view whole = real.get();
    return std::string(whole.substr(0, whole.rfind('/')));
}

// The folders of the program and of the shared library, if any, that this code is in.
std::vector<std::string> ownFolders() {
    std::vector<std::string> folders{folderOf("/proc/self/exe")};
    Dl_info library;
    if (dladdr(reinterpret_cast<const void*>(&ownFolders), &library) != 0) {
        folders.push_back(folderOf(library.dli_fname));
    }
    return folders;
}

std::string pathIn(const std::string& folder, const std::string& file) {
    std::string path = folder;
    path += '/';
    path += file;
    return path;
}

bool has(const std::string& folder, const std::string& module) {
    return os::presence(pathIn(folder, module).c_str()) == os::Presence::kPresent;
}

// Empty when there is none.
std::string findFolder(const std::string& module, const std::string& installed) {
    for (const std::string& own : ownFolders()) {
        for (const char* const beside :
             {"/../lib/filestore", "/filestore", "/../filestore", "/../lib", ""}) {
            std::string folder = own + beside;
            if (!own.empty() && has(folder, module)) {
                return folder;
            }
        }
    }
    return !installed.empty() && has(installed, module) ? installed : std::string();
}

std::string chooseFolder(const StoreHost::Setup& setup) {
    if (!setup.folder.empty()) {
        return setup.folder;
    }
    const char* const named = ::secure_getenv(kVariable);
    if (named != nullptr && *named != '\0') {
        return named;
    }
    return setup.modules.empty() ? std::string()
                                 : findFolder(setup.modules.back(), setup.installed);
}

}  // namespace

Result StoreHost::start(const Setup& setup) {
    if (ModMgr != nullptr) {
        return {kAlreadyOpen, "this program has a module manager already"};
    }
    const std::string folder = chooseFolder(setup);
    if (folder.empty()) {
        return {kMissing,
                "the modules of the store are not beside the program; name their folder in the "
                "environment as FILESTORE_MODULES, by an absolute path"};
    }
    if (!folder.starts_with('/')) {
        const char* const source = setup.folder.empty() ? kVariable : "the folder of the modules";
        return {kInvalid, std::string(source) + " is " + folder + "; name it by an absolute path"};
    }
    if (setup.own) {
        manager_.mapOwn();
    }
    ModMgr = &manager_;
    for (const std::string& module : setup.modules) {
        if (Result loaded = manager_.load(pathIn(folder, module).c_str()); !loaded.ok()) {
            (void)stop();  // the failure that led here is the one to report
            return loaded;
        }
    }
    return {};
}

Result StoreHost::stop() {
    Result unloaded = manager_.unloadAll();
    if (ModMgr == &manager_) {
        ModMgr = nullptr;
    }
    return unloaded;
}
