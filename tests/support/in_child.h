// Code that ends the process it runs in, or changes it: in a child.
#ifndef TESTS_SUPPORT_IN_CHILD_H
#define TESTS_SUPPORT_IN_CHILD_H

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace support {

// The exit code of a child that runs `body`, which returns it; negative for a signal.
template <class Body>
int inChild(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

}  // namespace support

#endif  // TESTS_SUPPORT_IN_CHILD_H
