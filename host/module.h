// A module, from its file to its service: mapped, started, stopped, unmapped.
//
// Every call of the host into the code of a module that may do as it likes is made
// here. Whatever such a call throws is caught here too, while the file is mapped: the
// type of an exception, its destructor and its words may all be in that file.
//
// The host owns what the entry gave, and keeps a plain reference on it and on the
// service, which mostly are one object: giving that up deletes them. The functions of
// one Module belong to one thread at a time.
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
    Result map(const std::string& path) { return ModuleFile::open(path, file_); }

    // Calls the entry of the mapped file and has the service start.
    //   kMalformed  the entry gives no object, or that of a module other than
    //               `expected`, or one that offers no service of its own
    //   kNoMemory, kIo, or what the service answered
    // After a failure, also by an exception, stop() has to be called.
    Result start(TModuleManager& manager, std::optional<unsigned int> expected);

    // Has the entry stop the objects, detaches the holders that are left, and gives up
    // the host's references. Does nothing on a module that was not started.
    void stop() noexcept;

    // Gives up the host's references alone: what others hold lives on.
    void letGo() noexcept;

    // Unmaps the file of a module that is not started or was stopped. kIo when the file
    // stays mapped, because of objects that the module has left behind among others.
    Result unmap();

    // Forgets the module, which stays as it is to the end of the process.
    void abandon() noexcept;

    // What the module answers; no when it throws.
    Result isReplaceable(bool& replaceable);

    // Has this module make successors of the objects of another one, as giveUp() says. When
    // it throws, the rest of the objects stays where it is.
    Result takeOver(CMN_ObjectManager& objects);

    // 0 until the module has said it.
    unsigned int id() const noexcept { return id_; }
    CMN_GuardedRef* service() const noexcept { return service_; }
    CMN_ObjectManager& objects() const noexcept { return file_.objects(); }
    const std::string& path() const noexcept { return file_.path(); }
    bool sameFileAs(const Module& other) const noexcept { return file_.sameAs(other.file_); }

private:
    template <class Call>
    Result calling(const char* what, Call call);
    Result refuse(Status status, const std::string& reason) const;

    unsigned int id_ = 0;
    ModuleFile file_;
    bool called_ = false;                  // the entry was called, so objects may have been made
    bool started_ = false;                 // and gave an object, so it has to be stopped
    BaseModuleInterface* face_ = nullptr;  // what the entry gave
    CMN_GuardedRef* self_ = nullptr;       // its other side; null when it has none
    CMN_GuardedRef* service_ = nullptr;
};

#endif  // HOST_MODULE_H
