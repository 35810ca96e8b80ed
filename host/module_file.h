// SPDX-License-Identifier: Apache-2.0
// The shared object that a module is made of, mapped into this process.
//
// Maps with RTLD_LOCAL, so that two modules never share a registry. The functions
// of one ModuleFile belong to one thread at a time.
#ifndef HOST_MODULE_FILE_H
#define HOST_MODULE_FILE_H

#include <string>

#include "api/base_module.h"
#include "cmn/cmn_obj_mgr.h"
#include "cmn/host_mgr.h"
#include "host/result.h"
#include "os/handles.h"

class ModuleFile {
public:
    using Entry = decltype(&GetInterfaceClass);
    using Successor = CMN_ObjectManager::Successor;

    ModuleFile() = default;  // nothing is mapped
    ModuleFile(const ModuleFile&) = delete;
    ModuleFile& operator=(const ModuleFile&) = delete;
    ~ModuleFile();  // as close()

    enum class Mapping {
        kShared,  // what else in the process maps the file has the same variables
        // The module has variables of its own, whoever else maps its file: what is mapped is a copy
        // in memory, or the file itself where the system has none.
        kOwn
    };

    // Maps the module at `path` into `file`, which holds nothing. Builds its static
    // objects and does not call its entry. If building them throws, the process ends: no
    // exception passes the dynamic linker.
    //   kMissing    there is no such file
    //   kIo         the file could not be opened or examined
    //   kMalformed  it is not a regular file, not a shared object, or one of the other
    //               word size; it is truncated, needs what is not there, lacks the
    //               functions of a module, or has no object manager
    static Result open(const std::string& path, ModuleFile& file,
                       Mapping mapping = Mapping::kShared);

    // Unmaps it and destroys its static objects. kIo if it stays mapped, because
    // something else has opened it too.
    Result close();

    // Lets it stay mapped to the end of the process.
    void abandon() noexcept { handle_ = nullptr; }

    // Whether a module is mapped here.
    bool isOpen() const noexcept { return handle_ != nullptr; }

    // True when both are the same mapping: a file, by whatever name, is mapped once.
    bool sameAs(const ModuleFile& other) const noexcept { return handle_ == other.handle_; }

    // Another function or variable that the module exports, or null.
    void* symbol(const char* name) const noexcept;

    const std::string& path() const noexcept { return path_; }  // absolute
    Entry entry() const noexcept { return entry_; }
    CMN_ObjectManager& objects() const noexcept { return *objects_; }
    Successor makeObject() const noexcept { return makeObject_; }

private:
    // What the dynamic linker calls it.
    std::string mappedPath() const;

    std::string path_;
    os::File copy_;  // open while it is mapped: its number is its name
    void* handle_ = nullptr;
    Entry entry_ = nullptr;
    CMN_ObjectManager* objects_ = nullptr;
    Successor makeObject_ = nullptr;
};

#endif  // HOST_MODULE_FILE_H
