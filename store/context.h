// The database that a thread works on.
//
// That is the one in the process's folder, unless the thread has entered a context: a
// database in another folder, with a lock of its own. The store's operations take no argument
// that would name it; they ask here, and os/base.h leads their paths to its folder.
#ifndef STORE_CONTEXT_H
#define STORE_CONTEXT_H

#include "cmn/status.h"
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

    // Whether this thread may make a change visible, as whoever watches its context says: asked
    // right before each rename and removal. Without one nothing is asked. When it may not, errno
    // is EIO.
    static bool mayChange() noexcept;

    // From now on mayChange() asks this; null: nobody.
    void watch(Status (*question)(void*), void* subject) noexcept {
        ask = question;
        argument = subject;
    }

    const unsigned int id;
    const int folder;
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;  // of its record files

private:
    Status (*ask)(void* argument) = nullptr;
    void* argument = nullptr;
};

// The calls of os/fs.h by which a change becomes visible. When the thread may not make it, they
// fail like the calls themselves.
namespace watched {

[[nodiscard]] int rename(const char* from, const char* to) noexcept;
int remove(const char* path) noexcept;
int rmdir(const char* path) noexcept;

}  // namespace watched

#endif  // STORE_CONTEXT_H
