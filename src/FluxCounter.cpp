#include "src/FluxCounter.h"

FluxCounter::FluxCounter(FluxCountObserver& observer, enFluxType type) : m_Observer(observer), m_enType(type)
{
}

FluxCounter::~FluxCounter() = default;

void FluxCounter::StartCountFlux()
{
}

void FluxCounter::StopCountFlux()
{
}

void FluxCounter::Construct()
{
}

void FluxCounter::ReportDataFlowStatistics(unsigned int first, unsigned int second)
{
    // Unsigned arithmetic: a total that wrapped gives the wrapped difference.
    const std::uint32_t firstIncrement = first - m_nLastFirst;
    const std::uint32_t secondIncrement = second - m_nLastSecond;
    // The totals are kept before the report, so an observer that reports
    // again from inside it counts from these totals.
    m_nLastSecond = second;
    m_nLastFirst = first;
    m_Observer.OnFluxCount(firstIncrement, secondIncrement, m_enType);
}
