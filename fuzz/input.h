// The bytes of an input, taken from the front; when there are none left, zeros.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : next_(data), left_(size) {}

    bool isEmpty() const { return left_ == 0; }

    unsigned int byte() {
        if (left_ == 0) {
            return 0;
        }
        --left_;
        return *next_++;
    }

    // Below `count`, which is not 0.
    std::size_t below(std::size_t count) { return byte() % count; }

    // As many bytes as the next one says.
    std::string bytes() { return take(byte()); }

    std::string rest() { return take(left_); }

private:
    std::string take(std::size_t size) {
        size = std::min(size, left_);
        std::string taken(reinterpret_cast<const char*>(next_), size);
        next_ += size;
        left_ -= size;
        return taken;
    }

    const std::uint8_t* next_;
    std::size_t left_;
};

inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

#endif  // FUZZ_INPUT_H
