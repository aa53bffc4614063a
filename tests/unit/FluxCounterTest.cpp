// The traffic counter: absolute totals in, increments out, unsigned 32-bit
// differences that wrap.

#include "src/FluxCounter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>

namespace {

using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::StrictMock;

class RecordingFluxObserver : public FluxCountObserver
{
public:
    MOCK_METHOD(void, OnFluxCount, (unsigned int firstIncrement, unsigned int secondIncrement, enFluxType type),
                (override));
};

// 2^32, for wrapped differences written out as the arithmetic they are.
const std::uint64_t KWrap = 4294967296ull;

TEST(FluxCounterTest, NewCounterStartsFromZeroTotals)
{
    StrictMock<RecordingFluxObserver> observer;
    FluxCounter counter(observer, FT_Tcp);
    EXPECT_EQ(&counter.m_Observer, &observer);
    EXPECT_EQ(counter.m_enType, FT_Tcp);
    EXPECT_EQ(counter.m_nLastFirst, 0u);
    EXPECT_EQ(counter.m_nLastSecond, 0u);
}

TEST(FluxCounterTest, ReportsIncrementsAndThenWrappedDifferences)
{
    StrictMock<RecordingFluxObserver> observer;
    FluxCounter counter(observer, FT_Http);
    {
        InSequence order;
        EXPECT_CALL(observer, OnFluxCount(100u, 50u, FT_Http));
        EXPECT_CALL(observer, OnFluxCount(150u, 30u, FT_Http));
        EXPECT_CALL(observer, OnFluxCount(static_cast<unsigned int>(KWrap + 10 - 250),
                                          static_cast<unsigned int>(KWrap + 0 - 80), FT_Http));
    }
    counter.ReportDataFlowStatistics(100, 50);
    counter.ReportDataFlowStatistics(250, 80);
    counter.ReportDataFlowStatistics(10, 0);
    EXPECT_EQ(counter.m_nLastFirst, 10u);
    EXPECT_EQ(counter.m_nLastSecond, 0u);
}

TEST(FluxCounterTest, TotalThatPassesTwoToTheThirtySecondGivesTheSmallIncrement)
{
    StrictMock<RecordingFluxObserver> observer;
    FluxCounter counter(observer, FT_Http);
    {
        InSequence order;
        EXPECT_CALL(observer, OnFluxCount(4294967290u, 4294967295u, FT_Http));
        EXPECT_CALL(observer, OnFluxCount(static_cast<unsigned int>(KWrap + 4 - 4294967290u),
                                          static_cast<unsigned int>(KWrap + 0 - 4294967295u), FT_Http));
    }
    counter.ReportDataFlowStatistics(4294967290u, 4294967295u);
    counter.ReportDataFlowStatistics(4, 0);
}

TEST(FluxCounterTest, SameTotalsAgainReportZero)
{
    StrictMock<RecordingFluxObserver> observer;
    FluxCounter counter(observer, FT_Tcp);
    {
        InSequence order;
        EXPECT_CALL(observer, OnFluxCount(7u, 9u, FT_Tcp));
        EXPECT_CALL(observer, OnFluxCount(0u, 0u, FT_Tcp));
    }
    counter.ReportDataFlowStatistics(7, 9);
    counter.ReportDataFlowStatistics(7, 9);
}

TEST(FluxCounterTest, TypeIsPassedThroughUnchanged)
{
    StrictMock<RecordingFluxObserver> observer;
    const enFluxType odd = static_cast<enFluxType>(-5);
    FluxCounter counter(observer, odd);
    EXPECT_CALL(observer, OnFluxCount(1u, 2u, odd));
    counter.ReportDataFlowStatistics(1, 2);
}

TEST(FluxCounterTest, StartStopAndConstructReportNothing)
{
    StrictMock<RecordingFluxObserver> observer;
    FluxCounter counter(observer, FT_Http);
    counter.Construct();
    FluxCountable& countable = counter;
    countable.StartCountFlux();
    countable.StopCountFlux();
    EXPECT_EQ(counter.m_nLastFirst, 0u);
    EXPECT_EQ(counter.m_nLastSecond, 0u);
}

TEST(FluxCounterTest, ObserverReportingFromInsideCountsFromTheNewTotals)
{
    StrictMock<RecordingFluxObserver> observer;
    FluxCounter counter(observer, FT_Http);
    {
        InSequence order;
        EXPECT_CALL(observer, OnFluxCount(100u, 10u, FT_Http)).WillOnce(Invoke([&](unsigned, unsigned, enFluxType) {
            counter.ReportDataFlowStatistics(130, 15);
        }));
        EXPECT_CALL(observer, OnFluxCount(30u, 5u, FT_Http));
    }
    counter.ReportDataFlowStatistics(100, 10);
    EXPECT_EQ(counter.m_nLastFirst, 130u);
    EXPECT_EQ(counter.m_nLastSecond, 15u);
}

}  // namespace
