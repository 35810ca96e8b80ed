// SPDX-License-Identifier: Apache-2.0
// A module, from its file to its service: mapped, started, stopped, unmapped.
//
// The host's calls into the code of a module, which may do anything, are all here. What
// such a call throws is caught here too, while the file is mapped: the type of an
// exception, its destructor and its text may all be in that file.
//
// The host owns what the entry returned, and keeps a plain reference on it and on the
// service, which are usually one object: dropping that deletes them. The functions of one
// Module belong to one thread at a time.
#ifndef HOST_MODULE_H
#define HOST_MODULE_H

#include <optional>
#include <string>

#include "api/base_module.h"
#include "cmn/cmn_gref.h"
#include "cmn/cmn_obj_mgr.h"
#include "host/module_file.h"
#include "host/result.h"

class Module {
public:
    Module() = default;
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    ~Module();  // as stop() and unmap()

    // As ModuleFile::open().
    Result map(const std::string& path, ModuleFile::Mapping mapping) {
        return ModuleFile::open(path, file_, mapping);
    }

    // Calls the entry of the mapped file and starts the service.
    //   kMalformed  the entry returns no object, that of another module than `expected`,
    //               or one without a service of its own
    //   kNoMemory, kIo, or what the service returned
    // After a failure, also by an exception, stop() has to be called.
    Result start(TModuleManager& manager, std::optional<unsigned int> expected);

    // Lets the entry stop the objects, detaches the remaining holders, and drops the
    // host's references. Does nothing for a module that was not started.
    void stop() noexcept;

    // Only drops the host's references: what others hold lives on.
    void letGo() noexcept;

    // Unmaps the file of a module that is not started or was stopped. kIo if the file stays
    // mapped, for example because the module has left objects behind.
    Result unmap();

    // Forgets the module, which stays as it is until the end of the process.
    void abandon() noexcept;

    // What the module returns; false if it throws.
    Result isReplaceable(bool& replaceable);

    // Lets this module make successors of the objects of another one, as giveUp() says. If
    // it throws, the remaining objects stay where they are.
    Result takeOver(CMN_ObjectManager& objects);

    // 0 until the module has returned it.
    unsigned int id() const noexcept { return id_; }
    CMN_GuardedRef* service() const noexcept { return service_; }
    CMN_ObjectManager& objects() const noexcept { return file_.objects(); }
    void* symbol(const char* name) const noexcept { return file_.symbol(name); }
    const std::string& path() const noexcept { return file_.path(); }
    bool sameFileAs(const Module& other) const noexcept { return file_.sameAs(other.file_); }

private:
    template <class Call>
    Result calling(const char* what, Call call);
    Result refuse(Status status, const std::string& reason) const;

    unsigned int id_ = 0;
    ModuleFile file_;
    bool called_ = false;                  // the entry was called and may have made objects
    bool started_ = false;                 // and returned one, so it has to be stopped
    BaseModuleInterface* face_ = nullptr;  // what the entry returned
    CMN_GuardedRef* self_ = nullptr;       // its other side; null when it has none
    CMN_GuardedRef* service_ = nullptr;
};

#endif  // HOST_MODULE_H
