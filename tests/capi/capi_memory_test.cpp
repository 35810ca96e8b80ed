// Each allocation of each C function fails once: the answer is a status, nothing leaks, and the
// handle is usable afterwards.
#include "tests/capi/operations.h"
#include "tests/support/alloc_fault.h"

namespace capi_test {
namespace {

using CapiMemoryTest = OperationsTest;

TEST_F(CapiMemoryTest, EachAllocationFailsOnce) {
    for (const Operation& operation : operations()) {
        operation.before();
        ASSERT_EQ(FILESTORE_OK, operation.run()) << operation.name;
        const long live = fault::liveAllocations();
        long failures = 0;
        for (long nth = 1;; ++nth) {
            operation.before();
            fault::FailingAllocation failing(nth);
            const filestore_status status = operation.run();
            if (!failing.lift()) {
                EXPECT_EQ(FILESTORE_OK, status) << operation.name;
                break;
            }
            ++failures;
            // What cannot be looked at for want of memory may be noted and passed over.
            EXPECT_NE(FILESTORE_FOREIGN, status) << operation.name << ", allocation " << nth;
            if (nth % 16 == 0) {
                expectUsable(operation.name);
            }
        }
        EXPECT_GT(failures, 10) << operation.name;
        operation.before();
        EXPECT_EQ(FILESTORE_OK, operation.run()) << operation.name;
        EXPECT_LE(fault::liveAllocations(), live + 8) << operation.name;
    }
}

}  // namespace
}  // namespace capi_test
