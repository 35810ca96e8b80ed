// What becomes of heap blocks of one size: linking watched_heap.cpp (target
// watched_heap) replaces the global operator new and delete of a program.
//
// Only blocks of the watched size, made by the thread that watches, count: a
// test that chooses an unusual size sees its own and not the test framework's.
// One object a thread may live at a time.
#ifndef TESTS_SUPPORT_WATCHED_HEAP_H
#define TESTS_SUPPORT_WATCHED_HEAP_H

#include <cstddef>

class WatchedHeap {
public:
    static constexpr std::size_t kMaxSize = 1024;

    explicit WatchedHeap(std::size_t size) noexcept;  // at most kMaxSize
    WatchedHeap(const WatchedHeap&) = delete;
    WatchedHeap& operator=(const WatchedHeap&) = delete;
    ~WatchedHeap();

    void refuse() noexcept { refuses_ = true; }  // from now on there is no such block

    int made() const noexcept { return made_; }
    int freed() const noexcept { return freed_; }

    // What the block that was freed last held at that moment: `size` bytes.
    const unsigned char* lastFreed() const noexcept { return lastFreed_; }

    // For the operators.
    void* allocate(std::size_t size) noexcept;
    void release(const void* memory) noexcept;

private:
    std::size_t size_;
    bool refuses_ = false;
    int made_ = 0;
    int freed_ = 0;
    void* live_[16] = {};  // blocks of this size made and not yet freed
    unsigned char lastFreed_[kMaxSize] = {};
};

#endif  // TESTS_SUPPORT_WATCHED_HEAP_H
