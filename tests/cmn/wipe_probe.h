// Functions that end the life of a buffer with a secret in it, in a file of
// their own: they are optimised in every build and know nothing of the callers.
#ifndef TESTS_CMN_WIPE_PROBE_H
#define TESTS_CMN_WIPE_PROBE_H

#include <cstddef>

inline constexpr std::size_t kProbeSize = 333;

using Fill = void (*)(unsigned char* to);  // writes kProbeSize bytes

void leaveLocalWiped(Fill fill);
void leaveLocalAsItIs(Fill fill);
void freeHeapWiped(Fill fill);
void freeHeapAsItIs(Fill fill);

#endif  // TESTS_CMN_WIPE_PROBE_H
