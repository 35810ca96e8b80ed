// How many locks one warm read takes, and how many blocks of memory it asks for: counted, since
// no clock of a busy machine would notice one more.
#include <dlfcn.h>
#include <pthread.h>

#include <cstddef>

#include "bench/contest/contender.h"
#include "gtest/gtest.h"
#include "host/store_host.h"
#include "tests/support/temp_dir.h"

namespace {

struct Counts {
    int locks = 0;        // entered; each is left again
    int allocations = 0;  // of the C library's heap, by whatever name
};

thread_local Counts* counted = nullptr;

void countLock(int result) {
    if (result == 0 && counted != nullptr) {
        ++counted->locks;
    }
}

template <class Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

// In place of the C library's, for the modules too: the program shows its symbols.
extern "C" {

void* __libc_malloc(std::size_t size);  // NOLINT(bugprone-reserved-identifier)

void* malloc(std::size_t size) {
    if (counted != nullptr) {
        ++counted->allocations;
    }
    return __libc_malloc(size);
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name,bugprone-macro-parentheses)
#define COUNTED_LOCK(NAME, LOCK)                                  \
    int NAME(LOCK* lock) noexcept {                               \
        static const auto original = next<int (*)(LOCK*)>(#NAME); \
        const int result = original(lock);                        \
        countLock(result);                                        \
        return result;                                            \
    }

COUNTED_LOCK(pthread_mutex_lock, pthread_mutex_t)
COUNTED_LOCK(pthread_mutex_trylock, pthread_mutex_t)
COUNTED_LOCK(pthread_rwlock_rdlock, pthread_rwlock_t)
COUNTED_LOCK(pthread_rwlock_wrlock, pthread_rwlock_t)

// NOLINTEND(readability-inconsistent-declaration-parameter-name,bugprone-macro-parentheses)

}  // extern "C"

namespace {

// A body and one of three attributes are encrypted, as in the benchmarks.
TEST(ReadCostTest, IsAsDocumented) {
    const support::TempDir folder;
    StoreHost host;
    ASSERT_TRUE(host.start().ok());
    const support::WorkingDir inside(folder.path());
    const auto store = makeStore();
    store->create();
    store->fill(0, 2);
    Record record = makeRecord(0, 1);
    for (int warming = 0; warming != 3; ++warming) {
        store->read(nameOfRecord(0), record);
    }

    Counts counts;
    counted = &counts;
    store->read(nameOfRecord(0), record);
    counted = nullptr;

    EXPECT_EQ(103, counts.locks);
    EXPECT_EQ(27, counts.allocations);
}

}  // namespace
