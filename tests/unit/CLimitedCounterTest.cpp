#include "BaseClass/src/CLimitedCounter.h"

#include <gtest/gtest.h>

TEST(CLimitedCounter, DefaultsToZeroWithLargestMaximum)
{
    CLimitedCounter counter;
    EXPECT_EQ(0, counter.GetCount());
    EXPECT_EQ(0x7fffffff, counter.GetMaxCount());
    EXPECT_FALSE(counter.IsReachMax());
    EXPECT_EQ(1, counter.IncreaseOne());
    EXPECT_EQ(1, counter.GetCount());
}

TEST(CLimitedCounter, SetMaxCountTakesBothValues)
{
    CLimitedCounter counter;
    counter.SetMaxCount(3, 2);
    EXPECT_EQ(3, counter.GetMaxCount());
    EXPECT_EQ(2, counter.GetCount());
}

TEST(CLimitedCounter, IncreasesUpToMaximumThenRefuses)
{
    CLimitedCounter counter;
    counter.SetMaxCount(3, 0);
    EXPECT_EQ(1, counter.IncreaseOne());
    EXPECT_EQ(1, counter.IncreaseOne());
    EXPECT_FALSE(counter.IsReachMax());
    // The third increase reaches the maximum, the fourth is one past it.
    EXPECT_EQ(1, counter.IncreaseOne());
    EXPECT_EQ(3, counter.GetCount());
    EXPECT_TRUE(counter.IsReachMax());
    EXPECT_EQ(0, counter.IncreaseOne());
    EXPECT_EQ(3, counter.GetCount());
}

TEST(CLimitedCounter, InitialCountOneBelowMaximumAllowsOneIncrease)
{
    CLimitedCounter counter;
    counter.SetMaxCount(5, 4);
    EXPECT_EQ(1, counter.IncreaseOne());
    EXPECT_EQ(0, counter.IncreaseOne());
    EXPECT_EQ(5, counter.GetCount());
}

TEST(CLimitedCounter, InitialCountAtMaximumAllowsNone)
{
    CLimitedCounter counter;
    counter.SetMaxCount(5, 5);
    EXPECT_TRUE(counter.IsReachMax());
    EXPECT_EQ(0, counter.IncreaseOne());
    EXPECT_EQ(5, counter.GetCount());
}

TEST(CLimitedCounter, ZeroMaximumRefusesAtOnce)
{
    CLimitedCounter counter;
    counter.SetMaxCount(0, 0);
    EXPECT_TRUE(counter.IsReachMax());
    EXPECT_EQ(0, counter.IncreaseOne());
    EXPECT_EQ(0, counter.GetCount());
}

TEST(CLimitedCounter, ReCountGoesBackToZeroAndKeepsMaximum)
{
    CLimitedCounter counter;
    counter.SetMaxCount(2, 2);
    counter.ReCount();
    EXPECT_EQ(0, counter.GetCount());
    EXPECT_EQ(2, counter.GetMaxCount());
    EXPECT_FALSE(counter.IsReachMax());
    EXPECT_EQ(1, counter.IncreaseOne());
    EXPECT_EQ(1, counter.IncreaseOne());
    EXPECT_EQ(0, counter.IncreaseOne());
}

TEST(CLimitedCounter, DefaultMaximumStopsAtLargestInt)
{
    CLimitedCounter counter;
    counter.SetMaxCount(0x7fffffff, 0x7ffffffe);
    EXPECT_EQ(1, counter.IncreaseOne());
    EXPECT_EQ(0x7fffffff, counter.GetCount());
    EXPECT_EQ(0, counter.IncreaseOne());
    EXPECT_EQ(0x7fffffff, counter.GetCount());
}
