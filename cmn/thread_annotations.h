// SPDX-License-Identifier: Apache-2.0
// Names for clang's thread-safety attributes; other compilers ignore them.
#ifndef CMN_THREAD_ANNOTATIONS_H
#define CMN_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define CMN_TSA(x) __attribute__((x))
#else
#define CMN_TSA(x)
#endif

#define CMN_CAPABILITY(kind) CMN_TSA(capability(kind))
#define CMN_SCOPED_CAPABILITY CMN_TSA(scoped_lockable)
#define CMN_ACQUIRES(...) CMN_TSA(acquire_capability(__VA_ARGS__))
#define CMN_RELEASES(...) CMN_TSA(release_capability(__VA_ARGS__))
#define CMN_TRY_ACQUIRES(...) CMN_TSA(try_acquire_capability(__VA_ARGS__))
#define CMN_GUARDED_BY(x) CMN_TSA(guarded_by(x))
#define CMN_REQUIRES(...) CMN_TSA(requires_capability(__VA_ARGS__))
#define CMN_NO_TSA CMN_TSA(no_thread_safety_analysis)

#endif  // CMN_THREAD_ANNOTATIONS_H
