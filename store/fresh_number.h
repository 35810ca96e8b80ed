// Which number of a counter gives a name that is free, in a folder of any size.
#ifndef STORE_FRESH_NUMBER_H
#define STORE_FRESH_NUMBER_H

#include <atomic>
#include <functional>

#include "os/files.h"

struct FreshNumber {
    unsigned int number;
    os::Presence taken;  // kPresent also when nobody looked
};

// What there is of a name with this number.
using NumberLook = std::function<os::Presence(unsigned int)>;

// Takes numbers from the counter until one is not taken, or could not be examined: where one cannot
// be examined, none can. The `most`-th is given untested. Threads that share the counter never get
// the same number.
FreshNumber takeInOrder(std::atomic<unsigned int>& counter, const NumberLook& look,
                        unsigned int most);

// The same for a folder that may hold millions, in at most 100 looks: 32 in order; then further
// and further ahead, until one is free; then halfway, to a free one that follows one that is taken.
// So after 1 to n without a gap it gives n + 1. Among gaps it may pass over some that are free.
// Untested is what it gives when all are taken, or when another thread takes numbers meanwhile:
// whoever creates the file exclusively asks again.
FreshNumber takeFarAhead(std::atomic<unsigned int>& counter, const NumberLook& look);

#endif  // STORE_FRESH_NUMBER_H
