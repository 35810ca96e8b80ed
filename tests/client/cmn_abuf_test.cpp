#include "client/cmn_abuf.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/client/forwarding.h"
#include "tests/support/doubles/double_services.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using std::literals::operator""s;

constexpr Status kOther = 77;  // a status that is none of ours

TBuf* const kNoBuf = nullptr;
const unsigned char kBytes[] = {'a', 0, 'b'};

std::string contents(const aBuf& buf) {
    return bytesOf(buf.target());
}

class BufClientTest : public testing::Test {
protected:
    DoubleServices services;
    FakeHost& host = services.host();
    CallWatch& watch = services.x509cmn().watch();
};

using BufTest = BufClientTest;
using X509CmnTest = BufClientTest;

TEST_F(BufTest, EveryCallReachesTheBufferUnderItsGuard) {
    aBuf buf("abc");
    const aBuf other("xy");
    const support::TempDir dir;
    const std::string file = dir / "file";
    const std::vector<ForwardedCall<aBuf>> rows = {
        {"set text", [](aBuf& b) { (void)b.set("text"); }, "set", {"set: text text"}},
        {"set bytes", [](aBuf& b) { (void)b.set(kBytes, 3); }, "set", {"set: bytes a\0b"s}},
        {"len", [](aBuf& b) { (void)b.len(); }, "length", {"length"}},
        {"datap", [](aBuf& b) { (void)b.datap(); }, "data", {"data"}},
        {"datap of a constant", [](aBuf& b) { (void)std::as_const(b).datap(); }, "data", {"data"}},
        {"dup", [&](aBuf& b) { (void)b.dup(other); }, "duplicate", {"duplicate: buffer xy"}},
        {"differs", [&](aBuf& b) { (void)(b != other); }, "compare", {"compare: buffer xy"}},
        {"save", [&](aBuf& b) { (void)b.save(file.c_str()); }, "save", {"save: text " + file}},
        {"load", [&](aBuf& b) { (void)b.load(file.c_str()); }, "load", {"load: text " + file}},
        {"shift", [](aBuf& b) { (void)b.shift(1); }, "shift", {"shift: 1"}},
        {"retreat", [](aBuf& b) { (void)b.retreat(0); }, "retreat", {"retreat: 0"}},
    };
    expectForwarded(rows, buf, *buf.target(), watch);
}

TEST_F(BufTest, OperationsDoWhatTheirNamesSay) {
    const support::TempDir dir;
    aBuf buf;
    EXPECT_EQ(kOk, buf.set("abcd"));
    EXPECT_EQ(4U, buf.len());
    EXPECT_EQ('a', *buf.datap());
    EXPECT_EQ(buf.datap(), std::as_const(buf).datap());
    EXPECT_EQ(kOk, buf.shift(1));
    EXPECT_EQ(kOk, buf.retreat(1));
    EXPECT_EQ("bc", contents(buf));
    EXPECT_EQ(kOk, buf.save((dir / "file").c_str()));
    aBuf loaded;
    EXPECT_EQ(kOk, loaded.load((dir / "file").c_str()));
    EXPECT_EQ("bc", contents(loaded));
    EXPECT_EQ(kOk, buf.set(kBytes, 3));
    EXPECT_EQ(kOk, loaded.dup(buf));
    EXPECT_EQ("a\0b"s, contents(loaded));
}

TEST_F(BufTest, StatusOfTheBufferIsPassedOnUnchanged) {
    const aBuf other;
    const struct {
        const char* operation;
        std::function<Status(aBuf&)> call;
    } rows[] = {
        {"set", [](aBuf& b) { return b.set("a"); }},
        {"set", [](aBuf& b) { return b.set(kBytes, 3); }},
        {"duplicate", [&](aBuf& b) { return b.dup(other); }},
        {"load", [](aBuf& b) { return b.load("file"); }},
        {"save", [](aBuf& b) { return b.save("file"); }},
        {"shift", [](aBuf& b) { return b.shift(0); }},
        {"retreat", [](aBuf& b) { return b.retreat(0); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.operation);
        aBuf buf;
        watch.failAt(row.operation, 1, kOther);
        EXPECT_EQ(kOther, row.call(buf));
        EXPECT_EQ(kOther, buf.error());
    }
}

TEST_F(BufTest, WithoutBufferNothingIsCalledAndEveryCallSaysSo) {
    const aBuf other("abc");
    const struct {
        const char* name;
        std::function<bool(aBuf&)> answersAsItMust;
    } rows[] = {
        {"set text", [](aBuf& b) { return b.set("a") == kNoObject; }},
        {"set bytes", [](aBuf& b) { return b.set(kBytes, 3) == kNoObject; }},
        {"len", [](aBuf& b) { return b.len() == 0; }},
        {"datap", [](aBuf& b) { return b.datap() == nullptr; }},
        {"datap of a constant", [](aBuf& b) { return std::as_const(b).datap() == nullptr; }},
        {"dup", [&](aBuf& b) { return b.dup(other) == kNoObject; }},
        {"differs", [&](aBuf& b) { return b != other; }},
        {"differs from itself", [](aBuf& b) { return b != b; }},
        {"load", [](aBuf& b) { return b.load("file") == kNoObject; }},
        {"save", [](aBuf& b) { return b.save("file") == kNoObject; }},
        {"shift", [](aBuf& b) { return b.shift(0) == kNoObject; }},
        {"retreat", [](aBuf& b) { return b.retreat(0) == kNoObject; }},
    };
    watch.record();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        aBuf buf(kNoBuf);
        EXPECT_EQ(kNoObject, buf.error());
        EXPECT_TRUE(row.answersAsItMust(buf));
        EXPECT_EQ(kNoObject, buf.error());
    }
    EXPECT_THAT(watch.calls(), IsEmpty());
}

TEST_F(BufTest, GettersForgetAnEarlierFailure) {
    const aBuf same("abc");
    const struct {
        const char* name;
        std::function<void(aBuf&)> call;
    } rows[] = {
        {"len", [](aBuf& b) { (void)b.len(); }},
        {"datap", [](aBuf& b) { (void)b.datap(); }},
        {"datap of a constant", [](aBuf& b) { (void)std::as_const(b).datap(); }},
        {"differs", [&](aBuf& b) { (void)(b != same); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        aBuf buf("abc");
        watch.failAt("set", 1, kOther);
        (void)buf.set("x");
        ASSERT_EQ(kOther, buf.error());
        row.call(buf);
        EXPECT_EQ(kOk, buf.error());
    }
}

TEST_F(BufTest, ErrorStaysWhenTheBufferThrows) {
    aBuf buf("abc");
    watch.failAt("set", 1, kOther);
    (void)buf.set("x");
    watch.throwAt("length");
    EXPECT_THROW((void)buf.len(), DoubleTrouble);
    EXPECT_EQ(kOther, buf.error());
}

TEST_F(BufTest, DupOfNoBufferCallsNothing) {
    aBuf buf("abc");
    watch.record();
    EXPECT_EQ(kNoObject, buf.dup(aBuf(kNoBuf)));
    EXPECT_EQ(kNoObject, buf.error());
    EXPECT_THAT(watch.calls(), IsEmpty());
    EXPECT_EQ("abc", contents(buf));
}

TEST_F(BufTest, DiffersAsTabled) {
    const aBuf abc("abc");
    const aBuf same("abc");
    const aBuf other("abd");
    const aBuf nothing(kNoBuf);
    const struct {
        const char* name;
        const aBuf& other;
        bool differs;
        Status error;
    } rows[] = {
        {"itself", abc, false, kOk},
        {"the same bytes", same, false, kOk},
        {"other bytes", other, true, kOk},
        {"no buffer", nothing, true, kNoObject},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.differs, abc != row.other);
        EXPECT_EQ(row.error, abc.error());
    }
}

TEST_F(BufTest, NewBuffersAreMadeByTheServiceUnderItsGuard) {
    theX509Cmn.ref();  // a stub that has to be acquired anew finds no raised guard
    watch.record();
    const aBuf empty;
    const aBuf text("abc");
    const aBuf bytes(kBytes, 3);
    EXPECT_THAT(watch.calls(),
                ElementsAre("createTBuf", "createTBuf: text abc", "createTBuf: bytes a\0b"s));
    EXPECT_THAT(watch.raised(), ElementsAre(1, 1, 1));
    EXPECT_EQ("", contents(empty));
    EXPECT_EQ("abc", contents(text));
    EXPECT_EQ("a\0b"s, contents(bytes));
    for (const aBuf* buf : {&empty, &text, &bytes}) {
        EXPECT_EQ(kOk, buf->error());
        EXPECT_EQ(1, buf->target()->references());
    }
    EXPECT_EQ(0, services.x509cmn().getGuard()->calls());
    theX509Cmn.unref();
}

TEST_F(BufTest, FailedCreationLeavesAHandleWithoutBuffer) {
    watch.failAt("createTBuf", 1, kNoMemory, CallWatch::kLasting);
    for (const aBuf& buf : {aBuf(), aBuf("abc"), aBuf(kBytes, 3)}) {
        EXPECT_EQ(nullptr, buf.target());
        EXPECT_EQ(kNoObject, buf.error());
    }
}

TEST_F(BufTest, HandleOfNoBufferTellsTheReasonUntilItIsCalled) {
    const aBuf none = aBuf::none(kNoMemory);
    EXPECT_EQ(nullptr, none.target());
    EXPECT_EQ(kNoMemory, none.error());
    EXPECT_EQ(kNoMemory, aBuf(none).error());
    EXPECT_EQ(0U, none.len());
    EXPECT_EQ(kNoObject, none.error());
}

TEST_F(BufTest, CreationThatThrowsGivesTheServiceBack) {
    watch.throwAt("createTBuf");
    EXPECT_THROW(aBuf("abc"), DoubleTrouble);
    EXPECT_EQ(0, services.x509cmn().getGuard()->calls());
    EXPECT_EQ(0, theX509Cmn.uses());
    EXPECT_EQ(0, host.uses(111));
}

TEST_F(BufTest, WithoutServiceThereIsNoBuffer) {
    host.withdraw(111);
    const aBuf buf("abc");
    EXPECT_EQ(nullptr, buf.target());
    EXPECT_EQ(kNoObject, buf.error());
    EXPECT_EQ(1, theX509Cmn.uses());
}

TEST_F(BufTest, WithoutHostThereIsNoBuffer) {
    const InstalledHost none(nullptr);
    const aBuf buf("abc");
    EXPECT_EQ(nullptr, buf.target());
    EXPECT_EQ(kNoObject, buf.error());
}

TEST_F(BufTest, CopiesShareTheBufferAndUseTheServiceThemselves) {
    aBuf buf("abc");
    watch.failAt("set", 1, kOther);
    (void)buf.set("x");
    const aBuf copy(buf);
    EXPECT_EQ(buf.target(), copy.target());
    EXPECT_EQ(2, buf.target()->references());
    EXPECT_EQ(2, theX509Cmn.uses());
    EXPECT_EQ(kOther, copy.error());

    aBuf assigned("other");
    assigned = buf;
    EXPECT_EQ(3, buf.target()->references());
    EXPECT_EQ(3, theX509Cmn.uses());
    EXPECT_EQ(kOther, assigned.error());
}

TEST_F(BufTest, SelfAssignmentKeepsTheBuffer) {
    aBuf buf("abc");
    const aBuf& same = buf;
    buf = same;
    EXPECT_EQ("abc", contents(buf));
    EXPECT_EQ(1, buf.target()->references());
}

TEST_F(BufTest, ServiceStaysAcquiredUntilTheLastHandleGoes) {
    {
        const aBuf first("a");
        { const aBuf second("b"); }
        const aBuf none(kNoBuf);
        EXPECT_THAT(host.calls(), ElementsAre("acquire 111 by 107"));
        EXPECT_NE(nullptr, theX509Cmn.service());
    }
    EXPECT_THAT(host.calls(), ElementsAre("acquire 111 by 107", "release 111 by 107"));
    EXPECT_EQ(nullptr, theX509Cmn.service());
    EXPECT_EQ(0, services.x509cmn().getGuard()->calls());
}

TEST_F(BufTest, ThreadsMakeBuffersWhileOthersDropTheLast) {
    std::atomic<int> missing{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&missing] {
            for (int n = 0; n < 2000; ++n) {
                if (contents(aBuf("abc")) != "abc") {
                    ++missing;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, missing);
    EXPECT_EQ(0, theX509Cmn.uses());
    EXPECT_EQ(0, host.uses(111));
    EXPECT_EQ(nullptr, theX509Cmn.service());
}

TEST_F(X509CmnTest, EveryCreationReachesTheServiceUnderItsGuard) {
    const aBuf source("xy");
    std::vector<CMN_GRefPtr<TBuf>> made(4);
    const std::vector<ForwardedCall<X509CmnSrv>> rows = {
        {"empty", [&](X509CmnSrv&) { made[0] = createTBuf(); }, "createTBuf", {"createTBuf"}},
        {"text",
         [&](X509CmnSrv&) { made[1] = createTBuf("abc"); },
         "createTBuf",
         {"createTBuf: text abc"}},
        {"bytes",
         [&](X509CmnSrv&) { made[2] = createTBuf(kBytes, 3); },
         "createTBuf",
         {"createTBuf: bytes a\0b"s}},
        {"copy",
         [&](X509CmnSrv&) { made[3] = createTBuf(source.target()); },
         "createTBuf",
         {"createTBuf: buffer xy"}},
    };
    expectForwarded(rows, theX509Cmn, services.x509cmn(), watch);
    EXPECT_EQ("", bytesOf(made[0].get()));
    EXPECT_EQ("abc", bytesOf(made[1].get()));
    EXPECT_EQ("a\0b"s, bytesOf(made[2].get()));
    EXPECT_EQ("xy", bytesOf(made[3].get()));
}

TEST_F(X509CmnTest, WithoutServiceEveryCreationGivesNull) {
    host.withdraw(111);
    EXPECT_EQ(nullptr, createTBuf());
    EXPECT_EQ(nullptr, createTBuf("abc"));
    EXPECT_EQ(nullptr, createTBuf(kBytes, 3));
    EXPECT_EQ(nullptr, createTBuf(kNoBuf));
}

TEST_F(X509CmnTest, WithoutHostEveryCreationGivesNull) {
    const InstalledHost none(nullptr);
    EXPECT_EQ(nullptr, createTBuf());
    EXPECT_EQ(nullptr, createTBuf("abc"));
    EXPECT_EQ(nullptr, createTBuf(kBytes, 3));
    EXPECT_EQ(nullptr, createTBuf(kNoBuf));
}

TEST_F(X509CmnTest, CreationLeavesTheServiceAcquiredUntilALastHandleGoes) {
    TBuf* const made = createTBuf("abc");
    EXPECT_EQ(0, theX509Cmn.uses());
    EXPECT_EQ(1, host.uses(111));
    {
        const aBuf buf(made);
        EXPECT_EQ("abc", contents(buf));
    }
    EXPECT_EQ(0, host.uses(111));
}

TEST_F(X509CmnTest, InitBindsTheStubAndFiniGivesTheServiceBack) {
    x509cmn_init();
    EXPECT_EQ(&services.x509cmn(), theX509Cmn.service());
    EXPECT_THAT(host.calls(), ElementsAre("acquire 111 by 107", "release 111 by 107"));
    host.forgetCalls();
    x509cmn_fini();
    EXPECT_EQ(nullptr, theX509Cmn.service());
    EXPECT_THAT(host.calls(), ElementsAre("release 111 by 107"));
}

TEST_F(X509CmnTest, InitLeavesTheSameServiceAlone) {
    const aBuf buf("abc");
    const int references = services.x509cmn().references();
    x509cmn_init();
    EXPECT_EQ(&services.x509cmn(), theX509Cmn.service());
    EXPECT_EQ(references, services.x509cmn().references());
    EXPECT_EQ(1, host.uses(111));
}

TEST_F(X509CmnTest, InitChangesOverToAnotherService) {
    CMN_GRefPtr<DoubleX509Cmn> other(new DoubleX509Cmn);
    {
        const aBuf buf("abc");
        host.offer(111, other.get());
        const int before = services.x509cmn().references();
        x509cmn_init();
        EXPECT_EQ(other.get(), theX509Cmn.service());
        EXPECT_EQ(before - 1, services.x509cmn().references());
        EXPECT_EQ(1, host.uses(111));
    }
    EXPECT_EQ(0, host.uses(111));
    EXPECT_EQ(2, other.get()->references());  // the host's and ours
}

TEST_F(X509CmnTest, InitWithoutServiceKeepsWhatThereIs) {
    const aBuf buf("abc");
    host.withdraw(111);
    x509cmn_init();
    EXPECT_EQ(&services.x509cmn(), theX509Cmn.service());
}

TEST_F(X509CmnTest, FiniWithoutServiceReleasesNothing) {
    x509cmn_fini();
    EXPECT_THAT(host.calls(), IsEmpty());
}

}  // namespace
