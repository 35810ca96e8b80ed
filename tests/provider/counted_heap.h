// How much of the heap is in use, to the byte: linking counted_heap.cpp replaces malloc() and its
// relatives for a program and all that it loads.
//
// mallinfo() is no measure: what the allocator keeps for its next allocations counts as used there,
// and grows with each load, whoever loads what, by some bytes to some hundred.
#ifndef TESTS_PROVIDER_COUNTED_HEAP_H
#define TESTS_PROVIDER_COUNTED_HEAP_H

namespace counted {

struct Heap {
    long blocks, bytes;
    bool operator==(const Heap&) const = default;
};

// Of all threads, at this time.
Heap heap() noexcept;

}  // namespace counted

#endif  // TESTS_PROVIDER_COUNTED_HEAP_H
