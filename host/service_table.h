// SPDX-License-Identifier: Apache-2.0
// Who offers which service, and who uses it: what modules ask the host about.
//
// Any thread may call any operation, also while it holds locks of the framework: the
// table's lock is a leaf, and no code of a module runs while it is held. So modules need
// not wait, whatever the host is doing.
//
// A use counts for the asker that acquired a service. A module's uses of its own service
// do not count: they must not prevent its unloading.
#ifndef HOST_SERVICE_TABLE_H
#define HOST_SERVICE_TABLE_H

#include <map>
#include <optional>
#include <string>

#include "cmn/cmn_gref.h"
#include "cmn/cmn_rmutex.h"
#include "cmn/id_type.h"
#include "cmn/thread_annotations.h"

// The number of an identifier; none for a text. Reads the value instead of calling the
// identifier's own comparison, which is code of the module that asks.
std::optional<unsigned int> numberOf(const TypifiedID& id) noexcept;

// An identifier in print, and as a key: a number in decimal, a text in quotes.
std::string nameOf(const TypifiedID& id);

class ServiceTable {
public:
    // What was counted for a module at one time.
    struct Uses {
        std::map<std::string, int> byAsker;  // above 0 each
        unsigned int acquisitions = 0;       // ever, so that one in between shows
    };

    ServiceTable() = default;
    ServiceTable(const ServiceTable&) = delete;
    ServiceTable& operator=(const ServiceTable&) = delete;

    // What the modules ask for; see TModuleManager. A service of the host itself comes
    // before that of a module. Null also when there is no memory to count the use.
    CMN_GuardedRef* acquire(const TypifiedID& service, const TypifiedID& asker) noexcept;
    void release(const TypifiedID& module, const TypifiedID& asker) noexcept;

    // Offers `service` as the host's own service `id`; null ends that.
    void setOwn(unsigned int id, CMN_GuardedRef* service);

    // Module `id` has come, and offers `service`; or it has gone.
    void add(unsigned int id, CMN_GuardedRef* service);
    void remove(unsigned int id) noexcept;
    bool has(const TypifiedID& id) const noexcept;

    // The operations below need a module that is in the table.

    // From now on nobody gets its service; or, after reopen(), everybody again.
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

    // No thread enters it twice; it is recursive only because the compiler's analysis knows
    // a scoped owner for that kind.
    mutable CMN_RecursiveMutex lock_{"services"};
    std::map<unsigned int, CMN_GuardedRef*> own_ CMN_GUARDED_BY(lock_);
    std::map<unsigned int, Module> modules_ CMN_GUARDED_BY(lock_);
};

#endif  // HOST_SERVICE_TABLE_H
