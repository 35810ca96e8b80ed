// Looks at objects as a module built elsewhere does: by the places of virtual
// operations and the offsets of fields, under the C++ ABI that both shapes share.
#ifndef TESTS_SUPPORT_RAW_OBJECT_H
#define TESTS_SUPPORT_RAW_OBJECT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

// Of two figures the one for this shape.
constexpr std::size_t shape(std::size_t on32, std::size_t on64) {
    return sizeof(void*) == 4 ? on32 : on64;
}

// The field of type V at `offset` of an object.
template <class V>
V fieldAt(const void* object, std::size_t offset) {
    V value;
    std::memcpy(&value, static_cast<const char*>(object) + offset, sizeof(value));
    return value;
}

inline constexpr std::size_t kNotVirtual = ~std::size_t{0};

// The place of a virtual operation in its class's table: such a member pointer is
// 1 plus the offset in the table, then the adjustment of `this`, which must be 0.
// To name one of several overloads give its type: slotOf<int(char) const>(&C::f).
template <class Operation, class Class>
std::size_t slotOf(Operation Class::*operation) {
    struct {
        std::uintptr_t place;
        std::ptrdiff_t adjustment;
    } raw;
    static_assert(sizeof(raw) == sizeof(operation));
    std::memcpy(&raw, &operation, sizeof(raw));
    if (raw.place % sizeof(void*) != 1 || raw.adjustment != 0) {
        return kNotVirtual;
    }
    return raw.place / sizeof(void*);
}

namespace raw_object {

template <class Signature>
struct Call;
template <class R, class... Params>
struct Call<R(Params...)> {
    static R slot(void* object, std::size_t number, Params... params) {
        const auto* const table = fieldAt<void* const*>(object, 0);
        return reinterpret_cast<R (*)(void*, Params...)>(table[number])(object, params...);
    }
};

}  // namespace raw_object

// Calls the operation at a place of the object's table: callSlot<int(char)>(object, 4, 'c').
template <class Signature, class... Args>
auto callSlot(void* object, std::size_t number, Args&&... args) {
    return raw_object::Call<Signature>::slot(object, number, static_cast<Args&&>(args)...);
}

#endif  // TESTS_SUPPORT_RAW_OBJECT_H
