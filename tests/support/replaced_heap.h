// What the global operator new and delete come down to in a program that replaces them:
// whoever defines these two functions links replaced_heap.cpp, which has the operators.
#ifndef TESTS_SUPPORT_REPLACED_HEAP_H
#define TESTS_SUPPORT_REPLACED_HEAP_H

#include <cstddef>

namespace replaced {

void* allocate(std::size_t size) noexcept;  // null when there is no memory
void release(void* memory) noexcept;        // or null

}  // namespace replaced

#endif  // TESTS_SUPPORT_REPLACED_HEAP_H
