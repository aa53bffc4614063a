#ifndef VELANET_BENCH_PROCESSSTATS_H
#define VELANET_BENCH_PROCESSSTATS_H

// Resident-set figures the bench clients print about themselves (Linux
// /proc), so that bench/compare can tell the growth during a transfer from
// the size of the loaded libraries.

#include <QByteArray>
#include <QFile>
#include <QList>

namespace velabench {

// A field of /proc/self/status in KiB ("VmRSS", "VmHWM"); -1 when unreadable.
inline long long StatusKib(const char* name)
{
    QFile status("/proc/self/status");
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray key = QByteArray(name) + ':';
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(key))
            return line.mid(key.size()).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

// Starts the peak resident set count afresh (Linux: "5" to clear_refs).
inline void ResetPeakRss()
{
    QFile refs("/proc/self/clear_refs");
    if (refs.open(QIODevice::WriteOnly))
        refs.write("5");
}

}  // namespace velabench

#endif
