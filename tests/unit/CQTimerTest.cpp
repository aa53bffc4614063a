#include "BaseClass/src/CQTimer.h"

#include "support/TestSupport.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

namespace {

struct CountingObserver : public CQTimerObserver
{
    void OnTimerExpired(CQTimer* timer) override
    {
        ++count;
        timers.push_back(timer);
        if (onExpiry)
            onExpiry(timer);
    }

    int count = 0;
    std::vector<CQTimer*> timers;
    std::function<void(CQTimer*)> onExpiry;
};

struct CountingNotifier : public MTimeOutNotifier
{
    void TimerExpired() override
    {
        ++count;
        if (onExpiry)
            onExpiry();
    }

    int count = 0;
    std::function<void()> onExpiry;
};

// Runs the event loop until an independent Qt timer has fired `ticks` times,
// giving a timer under test the chance to fire when it should not.
void RunTicks(int ticks, int intervalMs)
{
    QTimer reference;
    reference.setTimerType(Qt::PreciseTimer);
    int fired = 0;
    QObject::connect(&reference, &QTimer::timeout, [&fired] { ++fired; });
    reference.start(intervalMs);
    ASSERT_TRUE(velatest::SpinUntil([&fired, ticks] { return fired >= ticks; }));
}

}  // namespace

// --- CQTimer -------------------------------------------------------------

TEST(CQTimer, NewTimerIsInactive)
{
    CQTimer timer;
    EXPECT_FALSE(timer.IsActive());
}

TEST(CQTimer, NullObserverIsRefused)
{
    CQTimer timer;
    EXPECT_EQ(0, timer.StartTimer(nullptr, 1, 1, 3));
    EXPECT_FALSE(timer.IsActive());
}

TEST(CQTimer, RepeatModeFiresUntilStopped)
{
    CountingObserver observer;
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 5, 5, 3));
    EXPECT_TRUE(timer.IsActive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count >= 5; }));
    EXPECT_TRUE(timer.IsActive());
    for (CQTimer* reported : observer.timers)
        EXPECT_EQ(&timer, reported);

    timer.StopTimer();
    EXPECT_FALSE(timer.IsActive());
    const int stoppedAt = observer.count;
    RunTicks(5, 10);
    EXPECT_EQ(stoppedAt, observer.count);
}

TEST(CQTimer, RepeatModeWaitsFirstThenInterval)
{
    CountingObserver observer;
    QElapsedTimer clock;
    qint64 firstAt = -1;
    observer.onExpiry = [&](CQTimer*) {
        if (observer.count == 1)
            firstAt = clock.elapsed();
    };
    CQTimer timer;
    clock.start();
    ASSERT_NE(0, timer.StartTimer(&observer, 60, 20, 3));
    ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count >= 4; }));
    // 60 ms to the first expiry, then three intervals of 20 ms.
    EXPECT_GE(firstAt, 55);
    EXPECT_GE(clock.elapsed(), 55 + 3 * 18);
}

TEST(CQTimer, RepeatModeUsesIntervalNotFirstTime)
{
    CountingObserver observer;
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 0, 600000, 3));
    ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count == 1; }));
    RunTicks(5, 10);
    EXPECT_EQ(1, observer.count);
    EXPECT_TRUE(timer.IsActive());
}

TEST(CQTimer, OtherModesFireOnce)
{
    for (int mode : {0, 1, 2, 4, -1}) {
        CountingObserver observer;
        CQTimer timer;
        ASSERT_NE(0, timer.StartTimer(&observer, 5, 5, mode));
        ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count == 1; })) << "mode " << mode;
        EXPECT_FALSE(timer.IsActive()) << "mode " << mode;
        RunTicks(5, 10);
        EXPECT_EQ(1, observer.count) << "mode " << mode;
    }
}

TEST(CQTimer, LongFirstTimeDoesNotFireEarly)
{
    CountingObserver observer;
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 600000, 5, 3));
    RunTicks(5, 10);
    EXPECT_EQ(0, observer.count);
    EXPECT_TRUE(timer.IsActive());
}

TEST(CQTimer, NegativeTimesCountAsZero)
{
    CountingObserver observer;
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, -10, -10, 3));
    ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count >= 3; }));
    timer.StopTimer();
}

TEST(CQTimer, StopBeforeExpiryPreventsIt)
{
    CountingObserver observer;
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 10, 10, 3));
    timer.StopTimer();
    EXPECT_FALSE(timer.IsActive());
    RunTicks(5, 10);
    EXPECT_EQ(0, observer.count);
    // Stopping a stopped timer is harmless.
    timer.StopTimer();
    EXPECT_FALSE(timer.IsActive());
}

TEST(CQTimer, StopInsideCallback)
{
    CountingObserver observer;
    observer.onExpiry = [](CQTimer* timer) { timer->StopTimer(); };
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 5, 5, 3));
    ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count == 1; }));
    EXPECT_FALSE(timer.IsActive());
    RunTicks(5, 10);
    EXPECT_EQ(1, observer.count);
}

TEST(CQTimer, StopInsideCallbackAfterSeveralExpiries)
{
    CountingObserver observer;
    observer.onExpiry = [&observer](CQTimer* timer) {
        if (observer.count == 3)
            timer->StopTimer();
    };
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 5, 5, 3));
    ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count == 3; }));
    RunTicks(5, 10);
    EXPECT_EQ(3, observer.count);
    EXPECT_FALSE(timer.IsActive());
}

TEST(CQTimer, RestartInsideCallback)
{
    CountingObserver observer;
    CountingObserver second;
    observer.onExpiry = [&second](CQTimer* timer) { timer->StartTimer(&second, 5, 5, 0); };
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 5, 5, 3));
    ASSERT_TRUE(velatest::SpinUntil([&] { return second.count == 1; }));
    RunTicks(5, 10);
    EXPECT_EQ(1, observer.count);
    EXPECT_EQ(1, second.count);
    EXPECT_FALSE(timer.IsActive());
}

TEST(CQTimer, OnceModeRestartedInsideCallbackFiresAgain)
{
    CountingObserver observer;
    observer.onExpiry = [&observer](CQTimer* timer) {
        if (observer.count < 3)
            timer->StartTimer(&observer, 1, 1, 0);
    };
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 1, 1, 0));
    ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count == 3; }));
    RunTicks(5, 10);
    EXPECT_EQ(3, observer.count);
}

TEST(CQTimer, RestartReplacesRunningTimer)
{
    CountingObserver first;
    CountingObserver second;
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&first, 600000, 600000, 3));
    ASSERT_NE(0, timer.StartTimer(&second, 5, 5, 3));
    ASSERT_TRUE(velatest::SpinUntil([&] { return second.count >= 3; }));
    EXPECT_EQ(0, first.count);
    timer.StopTimer();
}

TEST(CQTimer, RestartWithLongerTimeDelaysExpiry)
{
    CountingObserver observer;
    CQTimer timer;
    ASSERT_NE(0, timer.StartTimer(&observer, 5, 5, 3));
    ASSERT_NE(0, timer.StartTimer(&observer, 600000, 600000, 3));
    RunTicks(5, 10);
    EXPECT_EQ(0, observer.count);
}

TEST(CQTimer, DeleteInsideCallback)
{
    CountingObserver observer;
    QPointer<CQTimer> timer = new CQTimer;
    observer.onExpiry = [](CQTimer* expired) { delete expired; };
    ASSERT_NE(0, timer->StartTimer(&observer, 5, 5, 3));
    ASSERT_TRUE(velatest::SpinUntil([&] { return timer.isNull(); }));
    RunTicks(5, 10);
    EXPECT_EQ(1, observer.count);
}

TEST(CQTimer, TwoTimersReportThemselves)
{
    CountingObserver observer;
    CQTimer a;
    CQTimer b;
    ASSERT_NE(0, a.StartTimer(&observer, 5, 5, 0));
    ASSERT_NE(0, b.StartTimer(&observer, 5, 5, 0));
    ASSERT_TRUE(velatest::SpinUntil([&] { return observer.count == 2; }));
    ASSERT_EQ(2u, observer.timers.size());
    EXPECT_NE(observer.timers[0], observer.timers[1]);
    EXPECT_TRUE(observer.timers[0] == &a || observer.timers[0] == &b);
    EXPECT_TRUE(observer.timers[1] == &a || observer.timers[1] == &b);
}

TEST(CQTimer, ParentDeletesTimer)
{
    QObject* parent = new QObject;
    QPointer<CQTimer> timer = new CQTimer(parent);
    CountingObserver observer;
    ASSERT_NE(0, timer->StartTimer(&observer, 5, 5, 3));
    delete parent;
    EXPECT_TRUE(timer.isNull());
    RunTicks(5, 10);
    EXPECT_EQ(0, observer.count);
}

// --- CTimeOutTimer -------------------------------------------------------

TEST(CTimeOutTimer, NewLGivesInactiveTimer)
{
    CountingNotifier notifier;
    std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
    ASSERT_NE(nullptr, timer);
    EXPECT_FALSE(timer->IsActive());
}

TEST(CTimeOutTimer, AfterFiresOnce)
{
    CountingNotifier notifier;
    std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
    timer->After(5000);
    EXPECT_TRUE(timer->IsActive());
    ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.count == 1; }));
    EXPECT_FALSE(timer->IsActive());
    RunTicks(5, 10);
    EXPECT_EQ(1, notifier.count);
}

TEST(CTimeOutTimer, AfterTakesMicroseconds)
{
    CountingNotifier notifier;
    std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
    QElapsedTimer clock;
    clock.start();
    timer->After(80000);
    ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.count == 1; }));
    EXPECT_GE(clock.elapsed(), 75);
}

TEST(CTimeOutTimer, LongTimeDoesNotFireEarly)
{
    CountingNotifier notifier;
    std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
    // The long-connection connect time-out: 30 s.
    timer->After(30000000);
    RunTicks(5, 10);
    EXPECT_EQ(0, notifier.count);
    EXPECT_TRUE(timer->IsActive());
}

TEST(CTimeOutTimer, SubMillisecondTimesStillWaitAndFire)
{
    for (int us : {1, 999, 1000, 1001}) {
        CountingNotifier notifier;
        std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
        timer->After(us);
        EXPECT_TRUE(timer->IsActive()) << us << " us";
        ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.count == 1; })) << us << " us";
    }
}

TEST(CTimeOutTimer, ZeroAndNegativeTimesFire)
{
    for (int us : {0, -1, -1000000}) {
        CountingNotifier notifier;
        std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
        timer->After(us);
        ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.count == 1; })) << us << " us";
    }
}

TEST(CTimeOutTimer, CancelPreventsExpiry)
{
    CountingNotifier notifier;
    std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
    timer->After(10000);
    timer->Cancel();
    EXPECT_FALSE(timer->IsActive());
    RunTicks(5, 10);
    EXPECT_EQ(0, notifier.count);
    timer->Cancel();
    EXPECT_FALSE(timer->IsActive());
}

TEST(CTimeOutTimer, AfterRestartsRunningTimer)
{
    CountingNotifier notifier;
    std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
    timer->After(600000000);
    timer->After(5000);
    ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.count == 1; }));
    RunTicks(5, 10);
    EXPECT_EQ(1, notifier.count);

    // Restarting with a longer time delays the expiry.
    timer->After(5000);
    timer->After(600000000);
    RunTicks(5, 10);
    EXPECT_EQ(1, notifier.count);
    EXPECT_TRUE(timer->IsActive());
}

TEST(CTimeOutTimer, AfterAgainInsideCallback)
{
    CountingNotifier notifier;
    std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
    notifier.onExpiry = [&] {
        if (notifier.count < 3)
            timer->After(1000);
    };
    timer->After(1000);
    ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.count == 3; }));
    RunTicks(5, 10);
    EXPECT_EQ(3, notifier.count);
    EXPECT_FALSE(timer->IsActive());
}

TEST(CTimeOutTimer, CancelInsideCallbackIsHarmless)
{
    CountingNotifier notifier;
    std::unique_ptr<CTimeOutTimer> timer(CTimeOutTimer::NewL(notifier));
    notifier.onExpiry = [&] { timer->Cancel(); };
    timer->After(1000);
    ASSERT_TRUE(velatest::SpinUntil([&] { return notifier.count == 1; }));
    EXPECT_FALSE(timer->IsActive());
}

TEST(CTimeOutTimer, DeleteInsideCallback)
{
    CountingNotifier notifier;
    QPointer<CTimeOutTimer> timer = CTimeOutTimer::NewL(notifier);
    notifier.onExpiry = [&] { delete timer.data(); };
    timer->After(1000);
    ASSERT_TRUE(velatest::SpinUntil([&] { return timer.isNull(); }));
    EXPECT_EQ(1, notifier.count);
}

TEST(CTimeOutTimer, ParentOwnsTimer)
{
    CountingNotifier notifier;
    QObject* parent = new QObject;
    QPointer<CTimeOutTimer> timer = CTimeOutTimer::NewL(notifier, parent);
    EXPECT_EQ(parent, timer->parent());
    timer->After(5000);
    delete parent;
    EXPECT_TRUE(timer.isNull());
    RunTicks(5, 10);
    EXPECT_EQ(0, notifier.count);
}
