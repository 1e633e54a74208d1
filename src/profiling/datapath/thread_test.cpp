#include "profiling/datapath/thread.h"

#include <gmock/gmock.h>
#include <time.h>

#include <stdexcept>

#include "hdc/thread_limit_test_support.h"
#include "profiling/datapath/thread_test_support.h"

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    static const auto real =
        reinterpret_cast<decltype(&pthread_mutex_unlock)>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    const int result = real(mutex);
    if (orla::test::restsAfterUnlock) {
        const timespec rest{0, 1000000};
        nanosleep(&rest, nullptr);
    }
    return result;
}

namespace analysis::nedra::common::thread {
namespace {

using orla::test::LogCapture;
using orla::test::WaitFor;
using testing::ElementsAre;

// Counts its runs and does what the test says, until it is asked to quit.
class Probe : public Thread {
public:
    explicit Probe(std::function<void(Probe&)> body = [](Probe& self) { self.UntilQuit(); })
        : body_(std::move(body)) {}
    ~Probe() override { static_cast<void>(Stop()); }

    void UntilQuit() const {
        EXPECT_TRUE(WaitFor([this] { return IsQuit(); }));
    }

    std::atomic<int> runs{0};

protected:
    void Run(const TraceletErrorContext& context) override {
        EXPECT_EQ(0u, context.id);
        ++runs;
        body_(*this);
    }

private:
    const std::function<void(Probe&)> body_;
};

TEST(Thread, StartsAndStopsAnyNumberOfTimes) {
    Probe probe;
    EXPECT_EQ(std::string(16, '\0'), probe.GetThreadName());
    orla::test::threadsLeft = 0;
    EXPECT_EQ(-1, probe.Start());
    orla::test::threadsLeft = -1;
    EXPECT_EQ(0, probe.Stop());
    EXPECT_TRUE(probe.IsQuit()) << "also a thread that never ran is asked to quit";
    for (int round = 1; round <= 3; ++round) {
        EXPECT_EQ(0, probe.Start());
        EXPECT_EQ(0, probe.Start()) << "a second thread";
        ASSERT_TRUE(WaitFor([&] { return probe.runs == round; }));
        EXPECT_FALSE(probe.IsQuit());
        EXPECT_EQ(0, probe.Stop());
        EXPECT_EQ(0, probe.Stop());
    }
    EXPECT_EQ(3, probe.runs);
}

TEST(Thread, HasItsNameAndASmallStackAndLetsNoExceptionOut) {
    LogCapture log;
    Probe probe([](Probe&) {
        char name[32] = {};
        size_t stack = 0;
        pthread_attr_t attributes;
        ASSERT_EQ(0, pthread_getname_np(pthread_self(), name, sizeof(name)));
        ASSERT_EQ(0, pthread_getattr_np(pthread_self(), &attributes));
        pthread_attr_getstacksize(&attributes, &stack);
        pthread_attr_destroy(&attributes);
        EXPECT_STREQ("TLET_ChanPool_1", name);
        EXPECT_LE(stack, 1024u * 1024) << "sanitizers multiply it, nothing else may";
        throw std::runtime_error("reason");
    });
    probe.SetThreadName("TLET_ChanPool_123");
    ASSERT_EQ(0, probe.Start());
    ASSERT_EQ(0, probe.Stop());
    EXPECT_THAT(log.Take(),
                ElementsAre("I New thread TLET_ChanPool_123 begins to run",
                            "E Thread TLET_ChanPool_123 ends by an exception, message: reason"));
}

TEST(Thread, NeverJoinsItself) {
    std::atomic<int> own{1};
    std::atomic<bool> ended{false};
    Probe probe([&](Probe& self) {
        own = self.Stop();
        mmSleep(20);  // for a Stop that would not wait
        ended = true;
    });
    ASSERT_EQ(0, probe.Start());
    ASSERT_TRUE(WaitFor([&] { return own != 1; }));
    EXPECT_EQ(-1, own);
    EXPECT_EQ(0, probe.Stop());
    EXPECT_TRUE(ended) << "another thread can still join it";
}

TEST(Thread, TwoThatStopItJoinItOnce) {
    for (int round = 0; round < 50; ++round) {
        Probe probe;
        ASSERT_EQ(0, probe.Start());
        std::thread other([&] { EXPECT_EQ(0, probe.Stop()); });
        EXPECT_EQ(0, probe.Stop());
        other.join();
    }
}

}  // namespace
}  // namespace analysis::nedra::common::thread
