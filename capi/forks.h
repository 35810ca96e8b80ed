// What a fork means for databases that are in use.
//
// A child has copies of its parent's descriptors, and the locks on those are the parent's; so the
// child opens folders again. And it has only the thread that forked: locks in memory that others
// held then stay held. So when a thread was inside of an operation, the child does nothing with
// databases any more.
//
// Any thread may call any of these.
#ifndef CAPI_FORKS_H
#define CAPI_FORKS_H

namespace capi {

// Lives while a thread works on databases.
class Operation {
public:
    // Throws kClosed in a child that was forked within an operation.
    Operation();
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;
    ~Operation();
};

// How many forks lie between this process and the one that loaded the library.
unsigned int forks() noexcept;

// Whether this is a child that was forked within an operation.
bool wasTorn() noexcept;

// To be called before the first Operation. Throws.
void watchForks();

}  // namespace capi

#endif  // CAPI_FORKS_H
