// Linked into a test: when the environment has CAPI_FILTERED, the system refuses this process what
// a container may refuse: unshare() and execve() with EPERM, clone3() as if it did not exist; and
// what concerns the whole process and so is not the library's to do: fchdir() and umask().
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>

namespace {

#define REFUSE(number, error)                                                     \
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(number), 0, 1), \
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (error))

[[noreturn]] void giveUp(const char* what) {
    std::perror(what);
    std::_Exit(1);
}

__attribute__((constructor)) void filter() {
    if (std::getenv("CAPI_FILTERED") == nullptr) {
        return;
    }
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        REFUSE(SYS_unshare, EPERM),
        REFUSE(SYS_execve, EPERM),
        REFUSE(SYS_execveat, EPERM),
        REFUSE(SYS_clone3, ENOSYS),
        REFUSE(SYS_fchdir, EPERM),
        REFUSE(SYS_umask, EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{sizeof rules / sizeof *rules, rules};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        giveUp("seccomp");
    }
    if (::unshare(CLONE_FS) != -1 || errno != EPERM) {
        giveUp("the filter does not hold");
    }
}

}  // namespace
