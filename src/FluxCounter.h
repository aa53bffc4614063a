#ifndef VELANET_FLUXCOUNTER_H
#define VELANET_FLUXCOUNTER_H

// Traffic counting: FluxCounter turns running byte totals into increments for
// a FluxCountObserver. The two totals are unsigned 32-bit counts whose
// meaning is the caller's (for example received and sent bytes); a total
// that wrapped past 2^32, or went down, gives the wrapped unsigned
// difference. Nothing in the library creates a counter; the HTTP engine's
// ReportFlux is where one would be hooked in.

#include <cstdint>

// The kind of traffic a counter reports; passed through unchanged.
enum enFluxType : std::int32_t
{
    FT_Http = 0,  // requests of the HTTP engines
    FT_Tcp = 1,   // long-lived TCP connections
};

// Something whose traffic can be counted.
class FluxCountable
{
public:
    virtual void StartCountFlux() = 0;
    virtual void StopCountFlux() = 0;

protected:
    FluxCountable() = default;
    FluxCountable(const FluxCountable&) = default;
    FluxCountable& operator=(const FluxCountable&) = default;
    ~FluxCountable() = default;
};

// Receives the increments since the previous report.
class FluxCountObserver
{
public:
    virtual void OnFluxCount(unsigned int firstIncrement, unsigned int secondIncrement, enFluxType type) = 0;

protected:
    FluxCountObserver() = default;
    FluxCountObserver(const FluxCountObserver&) = default;
    FluxCountObserver& operator=(const FluxCountObserver&) = default;
    ~FluxCountObserver() = default;
};

class FluxCounter : public FluxCountable
{
public:
    // Both totals start at 0, so the first report passes its totals as they are.
    FluxCounter(FluxCountObserver& observer, enFluxType type);

    // Start and stop have nothing to switch: counting is driven by reports.
    void StartCountFlux() override;
    void StopCountFlux() override;
    virtual ~FluxCounter();

    // Nothing to acquire.
    void Construct();

    // Reports (first - last first, second - last second, type), each an
    // unsigned 32-bit difference that wraps, and keeps the two totals.
    void ReportDataFlowStatistics(unsigned int first, unsigned int second);

    FluxCountObserver& m_Observer;  // not owned
    enFluxType m_enType;
    std::uint32_t m_nLastFirst = 0;
    std::uint32_t m_nLastSecond = 0;

private:
    FluxCounter(const FluxCounter&) = delete;
    FluxCounter& operator=(const FluxCounter&) = delete;
};

#endif
