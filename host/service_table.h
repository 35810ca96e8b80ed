// Who offers which service, and who uses it: what modules ask the host about.
//
// Any thread may call any operation, also with locks of the framework held: the
// table's lock is a leaf, and nothing of a module is called while it is held. So a
// module is served by a look into this table, whatever the host is doing.
//
// A use is counted for the asker that acquired a service. A module's uses of its
// own service are not counted: they must not keep it from being unloaded.
#ifndef HOST_SERVICE_TABLE_H
#define HOST_SERVICE_TABLE_H

#include <map>
#include <optional>
#include <string>

#include "cmn/cmn_gref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/id_type.h"
#include "cmn/thread_annotations.h"

// The number of an identifier; none for a text. The value is read, and not compared
// by the identifier's own operations, which are code of the module that asks.
std::optional<unsigned int> numberOf(const TypifiedID& id) noexcept;

// An identifier in print, and as a key: a number in decimal, a text in quotes.
std::string nameOf(const TypifiedID& id);

class ServiceTable {
public:
    // What was counted for a module at one moment.
    struct Uses {
        std::map<std::string, int> byAsker;  // above 0 each
        unsigned int acquisitions = 0;       // all that ever were, so that one in between is seen
    };

    ServiceTable() = default;
    ServiceTable(const ServiceTable&) = delete;
    ServiceTable& operator=(const ServiceTable&) = delete;

    // What the modules ask for; see TModuleManager. A service of the host's own goes
    // before that of a module. Null also when there is no memory to count the use.
    CMN_GuardedRef* acquire(const TypifiedID& service, const TypifiedID& asker) noexcept;
    void release(const TypifiedID& module, const TypifiedID& asker) noexcept;

    // Offers `service` as the host's own service `id`, or none when it is null.
    void setOwn(unsigned int id, CMN_GuardedRef* service);

    // Module `id` has come, and offers `service`; or it has gone.
    void add(unsigned int id, CMN_GuardedRef* service);
    void remove(unsigned int id) noexcept;
    bool has(const TypifiedID& id) const noexcept;

    // The operations below are about a module that is in the table.

    // From now on it gives its service to nobody; or, reopened, to everybody again.
    void close(unsigned int id) noexcept;
    void reopen(unsigned int id) noexcept;

    [[nodiscard]] Uses uses(unsigned int id) const;

    // As close(), unless the module is used now, or was acquired since `seen`.
    [[nodiscard]] bool closeUnused(unsigned int id, const Uses& seen) noexcept;

    // The module offers `service` from now on, unless it was acquired since `seen`:
    // false then, and nothing has changed.
    [[nodiscard]] bool exchange(unsigned int id, CMN_GuardedRef* service,
                                const Uses& seen) noexcept;

    // Forgets as many uses of the module as `these` counts.
    void forget(unsigned int id, const Uses& these) noexcept;

    // Forgets all uses that `asker` counts on any module.
    void forgetAsker(const std::string& asker) noexcept;

private:
    struct Module {
        CMN_GuardedRef* service;
        bool open = true;
        Uses counted{};
    };

    // Never entered twice by one thread; recursive only because that is the kind of
    // which the compiler's analysis knows a scoped owner.
    mutable CMN_RecursiveMutex lock_{"services"};
    std::map<unsigned int, CMN_GuardedRef*> own_ CMN_GUARDED_BY(lock_);
    std::map<unsigned int, Module> modules_ CMN_GUARDED_BY(lock_);
};

#endif  // HOST_SERVICE_TABLE_H
