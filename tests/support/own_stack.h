// A stack that a test can search for what the functions on it left behind.
#ifndef TESTS_SUPPORT_OWN_STACK_H
#define TESTS_SUPPORT_OWN_STACK_H

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <system_error>

class OwnStack {
public:
    // Runs `body` to its end in a thread on this stack.
    template <class Body>
    void run(Body body) {
        pthread_attr_t attributes;
        check(pthread_attr_init(&attributes));
        check(pthread_attr_setstack(&attributes, memory_->bytes, kSize));
        pthread_t thread{};
        check(pthread_create(&thread, &attributes, call<Body>, &body));
        check(pthread_join(thread, nullptr));
        check(pthread_attr_destroy(&attributes));
    }

    // Whether these bytes stand anywhere on the stack, in use or not.
    bool contains(const void* data, std::size_t size) const {
        const auto* bytes = static_cast<const unsigned char*>(data);
        const unsigned char* begin = memory_->bytes;
        return std::search(begin, begin + kSize, bytes, bytes + size) != begin + kSize;
    }

private:
    static constexpr std::size_t kSize = 2UL * 1024 * 1024;
    struct alignas(4096) Memory {
        unsigned char bytes[kSize];
    };

    template <class Body>
    static void* call(void* body) {
        // Far below the frames in which the thread will end, which would cover its traces.
        void* const gap = __builtin_alloca(kSize / 2);
        __asm__ volatile("" : : "r"(gap) : "memory");
        (*static_cast<Body*>(body))();
        return nullptr;
    }

    static void check(int error) {
        if (error != 0) {
            throw std::system_error(error, std::generic_category());
        }
    }

    std::unique_ptr<Memory> memory_ = std::make_unique<Memory>();  // all zeros
};

#endif  // TESTS_SUPPORT_OWN_STACK_H
