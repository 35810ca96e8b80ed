// What every proxy promises of every call, checked over a table of calls: it
// reaches the object, under the object's guard, which is lowered in any case.
#ifndef TESTS_CLIENT_FORWARDING_H
#define TESTS_CLIENT_FORWARDING_H

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cmn/cmn_gref.h"
#include "tests/support/doubles/call_watch.h"

template <class Proxy>
struct ForwardedCall {
    const char* name;
    std::function<void(Proxy&)> call;
    const char* operation;           // by which the object's operation is made to throw
    std::vector<std::string> calls;  // what the object, or its service, must see
};

// `target` is what `proxy` calls, and reports to `watch`.
template <class Proxy>
void expectForwarded(const std::vector<ForwardedCall<Proxy>>& rows, Proxy& proxy,
                     const CMN_GuardedRef& target, CallWatch& watch) {
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        watch.record();
        row.call(proxy);
        EXPECT_EQ(row.calls, watch.calls());
        EXPECT_THAT(watch.raised(), testing::Each(1));
        EXPECT_EQ(0, target.getGuard()->calls());

        watch.throwAt(row.operation);
        EXPECT_THROW(row.call(proxy), DoubleTrouble);
        EXPECT_EQ(0, target.getGuard()->calls());
    }
}

#endif  // TESTS_CLIENT_FORWARDING_H
