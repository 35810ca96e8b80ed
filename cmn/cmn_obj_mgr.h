// SPDX-License-Identifier: Apache-2.0
// The registry of all live guarded objects of one module.
//
// Objects enter it at construction and leave it at destruction. The host uses it
// when it replaces or unloads a module, through the exported functions of
// cmn/objmgrfunc.h. Any thread may call any operation; walks exclude each other
// and every change of a reference count of the module. Before a walk begins, it
// waits, without the lock, for the objects that have no reference: such an object is
// on its way to its first holder, or its last holder has just let go, and the
// thread that does either needs the lock. So the caller of a walk must neither own
// that lock nor have such an object itself. A walk destroys what it has left without
// holders when it is over, without the lock. Walks and takeovers need some memory:
// without it they throw std::bad_alloc when they have done a part, and keep nothing pinned.
//
// The order of fields and of virtual operations is a binary contract between
// modules.
#ifndef CMN_CMN_OBJ_MGR_H
#define CMN_CMN_OBJ_MGR_H

#include "cmn/cmn_gref.h"
#include "cmn/cmn_ref.h"
#include "cmn/export.h"
#include "cmn/id_type.h"

class CMN_EXPORT CMN_ObjectManager {
public:
    constexpr CMN_ObjectManager() noexcept = default;
    CMN_ObjectManager(const CMN_ObjectManager&) = delete;
    CMN_ObjectManager& operator=(const CMN_ObjectManager&) = delete;

    // Detaches every holder, of whatever module, from every object. Objects that
    // nothing but holders kept are gone afterwards.
    virtual void fini();

    // 1 when a holder that lives in another module holds an object, else 0.
    virtual int moduleIsUsed();

    // Enters and leaves the registry; called once each, by the object itself.
    void storeObj(CMN_GuardedRef* obj);
    void removeObj(CMN_GuardedRef* obj);

    // A pin on the newest object, or null when there is none. The caller ends it
    // with die().
    DummyHolder* getObj();

    // Takes over every object of `parent`: makes a successor of each that is held,
    // with MakeObject(), redirects all its holders to the successor, or to nothing if
    // there is none, and lets the old object go. Waits until no call and no
    // release is in progress on the object, and keeps calls out from then on: while
    // MakeObject() runs, this thread holds the mutex of the object's guard, and no other
    // lock of the framework. A successor that nobody holds in the end is destroyed. Does
    // not end while an object of `parent` survives without holders: the host has to drop
    // its plain references.
    void init(CMN_ObjectManager* parent);

    // The same, called on the old registry: `make`, the MakeObject() of another module,
    // makes the successors. For a host, whose own MakeObject() makes nothing of a module.
    using Successor = CMN_GuardedRef* (*)(unsigned int type, CMN_GuardedRef& old);
    void giveUp(Successor make);

    // 1 when a holder that lives in module `id` holds an object, else 0.
    int moduleIsUsedBy(const TypifiedID& id);

    // Detaches every holder that lives in module `id`; returns how many let go by
    // themselves. One that did not is detached by force and not counted.
    int unhookObjs(const TypifiedID& id);

    // Calls fini() of every object, newest first.
    void finiAll();

    // How many objects there are.
    int size();

    // True while a call or a release is in progress on an object, or an object is on its
    // way to its first holder.
    bool isBusy();

    // Detaches the holders that live outside of module `home` from every object on
    // which no call and no release is in progress; returns the number of objects that it
    // skipped. For a module that is to be unloaded although it is used.
    int unhookForeign(const TypifiedID& home);

    // Detaches every holder of this one object, as fini() does of all.
    CMN_HIDDEN void detachAll(CMN_GuardedRef& obj);

private:
    template <class Test>
    bool anyHolder(Test test);
    template <class Visit>
    void forEachPinned(Visit visit);
    template <class Test>
    static int detachHolders(CMN_GuardedRef& obj, Test test);
    class CMN_HIDDEN Settled;
    class CMN_HIDDEN Orphans;
    class CMN_HIDDEN Pin;
    CMN_HIDDEN static bool isHeldBeside(CMN_GuardedRef& pinned);
    CMN_HIDDEN bool handOver(const DummyHolder& pinned, Successor make);

    CMN_Mutex unused;  // part of the layout; nothing locks it
    // Shared with the reference counts, so a walk sees counts that stand still.
    CMN_RecursiveMutex* lock = &CMN_Reference::RefMutex;
    CMN_GuardedRef* head = nullptr;  // newest object first
};

extern CMN_ObjectManager ObjectManager;  // this module's one registry
extern CMN_ObjectManager* pObjMgr;       // &ObjectManager

#endif  // CMN_CMN_OBJ_MGR_H
