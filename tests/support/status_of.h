// What a step that may fail ends with.
#ifndef TESTS_SUPPORT_STATUS_OF_H
#define TESTS_SUPPORT_STATUS_OF_H

#include "lib/base/error.h"

namespace support {

// The status of the Failure that the step throws; kOk if it throws none.
template <class Step>
Status statusOf(Step step) {
    try {
        (void)step();
    } catch (const fstore::Failure& failure) {
        return failure.status();
    }
    return kOk;
}

}  // namespace support

#endif  // TESTS_SUPPORT_STATUS_OF_H
