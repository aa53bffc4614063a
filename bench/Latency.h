#ifndef VELANET_BENCH_LATENCY_H
#define VELANET_BENCH_LATENCY_H

// Per-request latency of the bench clients: from the call that starts a
// request to its completion report, printed as percentiles so that
// bench/compare can set them beside curl's time_total.

#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <vector>

namespace velabench {

class Latencies
{
public:
    explicit Latencies(int count) : m_start(static_cast<size_t>(count), 0) { m_clock.start(); }

    // Request index (0-based) started / completed now.
    void Start(int index) { m_start.at(static_cast<size_t>(index)) = m_clock.nsecsElapsed(); }
    void Complete(int index) { m_done.push_back(m_clock.nsecsElapsed() - m_start.at(static_cast<size_t>(index))); }

    // "p50-ms X" and "p99-ms Y" (nearest rank) of the completed requests.
    void Print() const
    {
        if (m_done.empty())
            return;
        std::vector<qint64> sorted = m_done;
        std::sort(sorted.begin(), sorted.end());
        std::printf("p50-ms %.3f\np99-ms %.3f\n", Rank(sorted, 50) / 1e6, Rank(sorted, 99) / 1e6);
    }

private:
    static double Rank(const std::vector<qint64>& sorted, int percent)
    {
        // Nearest rank: the smallest value with at least percent % at or below it.
        size_t rank = (sorted.size() * static_cast<size_t>(percent) + 99) / 100;
        rank = std::max<size_t>(rank, 1);
        return static_cast<double>(sorted[rank - 1]);
    }

    QElapsedTimer m_clock;
    std::vector<qint64> m_start;
    std::vector<qint64> m_done;
};

}  // namespace velabench

#endif
