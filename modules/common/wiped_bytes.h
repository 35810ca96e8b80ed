// Bytes in memory that holds no trace of them once they are gone: it is wiped
// when it is freed, and where contents are cut off, moved or overwritten.
//
// Made for buffers of up to 4 GiB: nothing throws, what is about to be filled is
// not zeroed first, and what grows has room to spare. Whatever needs memory answers
// true, or false and changes nothing. One thread's at a time; any number may read.
#ifndef MODULES_COMMON_WIPED_BYTES_H
#define MODULES_COMMON_WIPED_BYTES_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <span>
#include <utility>

#include "cmn/wipe.h"

class WipedBytes {
public:
    WipedBytes() noexcept = default;
    WipedBytes(WipedBytes&& other) noexcept
        : bytes_(std::exchange(other.bytes_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0)) {}
    WipedBytes& operator=(WipedBytes&& other) noexcept {
        WipedBytes old(std::move(other));
        swap(old);
        return *this;
    }
    ~WipedBytes() { clear(); }

    void swap(WipedBytes& other) noexcept {
        std::swap(bytes_, other.bytes_);
        std::swap(size_, other.size_);
        std::swap(capacity_, other.capacity_);
    }

    // Null only while there never was anything.
    unsigned char* data() noexcept { return bytes_; }
    const unsigned char* data() const noexcept { return bytes_; }
    std::size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    std::size_t capacity() const noexcept { return capacity_; }
    std::span<const unsigned char> view() const noexcept { return {bytes_, size_}; }

    // Replaces the contents. `bytes` may be part of them.
    [[nodiscard]] bool assign(std::span<const unsigned char> bytes) noexcept {
        if (bytes.empty()) {
            dropBack(size_);
            return true;
        }
        if (bytes_ == nullptr || bytes.size() > capacity_) {
            WipedBytes fresh;
            if (!fresh.allocate(bytes.size())) {
                return false;
            }
            fresh.addInPlace(bytes);
            swap(fresh);
            return true;
        }
        std::memmove(bytes_, bytes.data(), bytes.size());
        if (bytes.size() < size_) {
            dropBack(size_ - bytes.size());
        }
        size_ = bytes.size();
        return true;
    }

    // Adds to the contents. `bytes` may be part of them. Grows with room to spare,
    // so that what is built piece by piece moves rarely.
    [[nodiscard]] bool append(std::span<const unsigned char> bytes) noexcept {
        if (bytes.empty()) {
            return true;
        }
        if (bytes_ == nullptr || bytes.size() > capacity_ - size_) {
            if (bytes.size() > kMost - size_) {
                return false;
            }
            const std::size_t needed = size_ + bytes.size();
            WipedBytes fresh;
            if (!fresh.allocate(needed + needed / 2) && !fresh.allocate(needed)) {
                return false;
            }
            if (size_ != 0) {
                std::memcpy(fresh.bytes_, bytes_, size_);
            }
            fresh.size_ = size_;
            fresh.addInPlace(bytes);
            swap(fresh);
            return true;
        }
        addInPlace(bytes);
        return true;
    }

    // Replaces the contents by `size` bytes of no particular value.
    [[nodiscard]] bool reset(std::size_t size) noexcept {
        if (bytes_ == nullptr || size > capacity_) {
            WipedBytes fresh;
            if (!fresh.allocate(size)) {
                return false;
            }
            swap(fresh);
        }
        if (size < size_) {
            dropBack(size_ - size);
        }
        size_ = size;
        return true;
    }

    // Both take no more than there is.
    void dropFront(std::size_t count) noexcept {
        if (count != 0) {
            std::memmove(bytes_, bytes_ + count, size_ - count);
            dropBack(count);
        }
    }
    void dropBack(std::size_t count) noexcept {
        if (count != 0) {
            size_ -= count;
            wipe(bytes_ + size_, count);
        }
    }

    // Drops the contents and their memory.
    void clear() noexcept {
        if (bytes_ != nullptr) {
            wipe(bytes_, size_);  // beyond the contents nothing was left behind
        }
        delete[] bytes_;
        bytes_ = nullptr;
        size_ = capacity_ = 0;
    }

private:
    // A short content costs no more memory than this, and a header that grows into
    // a short message moves nothing.
    static constexpr std::size_t kLeast = 128;

    // What an object in memory can have at most.
    static constexpr std::size_t kMost = std::numeric_limits<std::ptrdiff_t>::max();

    bool allocate(std::size_t size) noexcept {
        if (size > kMost) {
            return false;
        }
        const std::size_t rounded = std::max(size, kLeast);
        bytes_ = new (std::nothrow) unsigned char[rounded];
        capacity_ = bytes_ == nullptr ? 0 : rounded;
        return bytes_ != nullptr;
    }

    void addInPlace(std::span<const unsigned char> bytes) noexcept {
        std::memcpy(bytes_ + size_, bytes.data(), bytes.size());
        size_ += bytes.size();
    }

    unsigned char* bytes_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

#endif  // MODULES_COMMON_WIPED_BYTES_H
