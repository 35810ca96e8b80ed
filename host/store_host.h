// SPDX-License-Identifier: Apache-2.0
// What a program needs to start the store: a module manager, and the store's modules,
// found and loaded.
//
//     StoreHost host;
//     if (const Result started = host.start(); !started.ok()) { ... }
//     aFileStoreSrv store;
//     store.open("password");
//
// The proxies linked into the program find their services once start() has
// succeeded. A program has one started StoreHost at a time, for all its threads;
// starting and stopping it is one thread's, while no other uses a proxy.
#ifndef HOST_STORE_HOST_H
#define HOST_STORE_HOST_H

#include <string>
#include <vector>

#include "host/module_manager.h"
#include "host/result.h"

#ifndef FILESTORE_INSTALLED_MODULES
#define FILESTORE_INSTALLED_MODULES ""
#endif

class StoreHost {
public:
    struct Setup {
        // The folder of the modules. If empty: the environment's FILESTORE_MODULES, or else
        // the first folder that has the last of `modules`, relative to the program and then
        // to the library that this code is in: ../lib/filestore, filestore, ../filestore (from
        // the folder of one architecture), ../lib, and ".".
        // An absolute path, wherever it comes from: code is never loaded from the folder of a
        // database, nor from wherever a program happens to be.
        //
        // Of a program that runs with more rights than its caller (set-user-id, capabilities:
        // AT_SECURE), the environment is not asked. Such a program names the folder here, one
        // that nobody but root can write to, nor any folder above it: who links or copies the
        // program elsewhere would choose what is beside it.
        std::string folder;
        // Loaded in this order, so that each finds the ones that it calls.
        std::vector<std::string> modules{"x509cmn.so", "pkixkey.so", "pkcs5.so", "filestore.so"};
        // Whether the modules are this host's alone, also when the program hosts the same files
        // itself (ModuleManager::mapOwn()): for a library, whose programs it does not know.
        bool own = false;
        // The folder that is looked at last of all: where the modules are that were installed with
        // these headers. find_package(filestore) sets it; who compiles with pkg-config defines the
        // macro as the text of `pkg-config --variable=moduledir filestore`.
        // NOLINTNEXTLINE(readability-redundant-string-init): empty only by default
        std::string installed{FILESTORE_INSTALLED_MODULES};
    };

    StoreHost() = default;
    StoreHost(const StoreHost&) = delete;
    StoreHost& operator=(const StoreHost&) = delete;
    ~StoreHost() { (void)stop(); }

    // Loads the modules and becomes this program's module manager. After a failure none
    // is loaded. Results as those of ModuleManager::load(), and
    //   kMissing      no folder has the modules
    //   kInvalid      the folder is not an absolute path
    //   kAlreadyOpen  this StoreHost, or another one of the program, is started
    Result start(const Setup& setup);
    Result start() { return start(Setup()); }

    // Unloads all modules, the newest first; from then on, proxies that are left hold
    // nothing. Results as those of ModuleManager::unloadAll(); kOk when it is not started.
    Result stop();

    // For more modules, and for services of the program's own.
    ModuleManager& manager() noexcept { return manager_; }

private:
    ModuleManager manager_;
};

#endif  // HOST_STORE_HOST_H
