// Tells whether freed memory still holds a secret: linking secret_heap.cpp (target
// secret_heap) replaces the global operator new and delete of a program.
//
// The blocks of every thread count. Those of malloc() itself do not.
#ifndef TESTS_MODULES_SECRET_HEAP_H
#define TESTS_MODULES_SECRET_HEAP_H

namespace support {

// Every secret of a test contains this somewhere.
inline constexpr char kMarker[] = "<<-A-SECRET->>";

// How many blocks were freed with the marker in them since the program began.
long freedWithMarker() noexcept;

}  // namespace support

#endif  // TESTS_MODULES_SECRET_HEAP_H
