#include "store/fresh_number.h"

#include <optional>

namespace {

constexpr unsigned int kInOrder = 32;

FreshNumber untested(std::atomic<unsigned int>& counter) {
    return {counter.fetch_add(1, std::memory_order_relaxed), os::Presence::kPresent};
}

// The last one that is known to be taken, and one behind it that is not.
struct Border {
    unsigned int taken;
    FreshNumber beyond;
};

std::optional<Border> strideAhead(unsigned int taken, const NumberLook& look) {
    for (unsigned int stride = 1; stride != 0; stride *= 2) {
        const unsigned int number = taken + stride;
        const os::Presence seen = look(number);
        if (seen != os::Presence::kPresent) {
            return Border{taken, {number, seen}};
        }
        taken = number;
    }
    return std::nullopt;
}

// The numbers go round after the last one, so only distances are compared.
FreshNumber bisect(Border border, const NumberLook& look) {
    while (border.beyond.taken == os::Presence::kAbsent &&
           border.beyond.number - border.taken > 1) {
        const unsigned int middle = border.taken + (border.beyond.number - border.taken) / 2;
        const os::Presence seen = look(middle);
        if (seen == os::Presence::kPresent) {
            border.taken = middle;
        } else {
            border.beyond = {middle, seen};
        }
    }
    return border.beyond;
}

}  // namespace

FreshNumber takeInOrder(std::atomic<unsigned int>& counter, const NumberLook& look,
                        unsigned int most) {
    for (unsigned int attempt = 1; attempt < most; ++attempt) {
        const unsigned int number = counter.fetch_add(1, std::memory_order_relaxed);
        if (const os::Presence seen = look(number); seen != os::Presence::kPresent) {
            return {number, seen};
        }
    }
    return untested(counter);
}

FreshNumber takeFarAhead(std::atomic<unsigned int>& counter, const NumberLook& look) {
    const FreshNumber near = takeInOrder(counter, look, kInOrder);
    if (near.taken != os::Presence::kPresent) {
        return near;
    }
    const os::Presence last = look(near.number);
    if (last != os::Presence::kPresent) {
        return {near.number, last};
    }
    const std::optional<Border> border = strideAhead(near.number, look);
    if (!border) {
        return untested(counter);
    }
    const FreshNumber found = bisect(*border, look);
    unsigned int expected = near.number + 1;
    const bool isOurs =
        counter.compare_exchange_strong(expected, found.number + 1, std::memory_order_relaxed);
    return isOurs ? found : untested(counter);
}
