// The database that a thread works on.
//
// That is the one in the process's folder, unless the thread has entered a context: a
// database in another folder, with a lock of its own. The store's operations take no argument
// that would name it; they ask here, and os/base.h leads their paths to its folder.
#ifndef STORE_CONTEXT_H
#define STORE_CONTEXT_H

#include "os/handles.h"

struct Context {
    // `opened` is a folder that stays open for as long as this lives; `number` is not 0,
    // which stands for the process's folder.
    Context(unsigned int number, int opened) noexcept : id(number), folder(opened) {}
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    ~Context() { pthread_rwlock_destroy(&lock); }

    // The one that this thread has entered, or null.
    static Context* entered() noexcept;
    static unsigned int enteredId() noexcept;

    // Enters another one, or with null the process's folder; returns the one before.
    static Context* exchange(Context* next) noexcept;

    const unsigned int id;
    const int folder;
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;  // of its record files
};

#endif  // STORE_CONTEXT_H
