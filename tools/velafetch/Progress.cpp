#include "Progress.h"

#include "Report.h"

#include <cstdio>
#include <unistd.h>

namespace velafetch {

ProgressBar::ProgressBar() : m_enabled(::isatty(STDERR_FILENO) == 1) {}

QString ProgressBar::Line(const QString& label, qint64 bytes, qint64 total, double rate)
{
    QString line = label;
    if (total > 0) {
        const qint64 shown = bytes < total ? bytes : total;
        const int percent = static_cast<int>(shown * 100 / total);
        const int filled = static_cast<int>(shown * KWidth / total);
        QString bar(KWidth, QChar(' '));
        for (int i = 0; i < filled; ++i)
            bar[i] = QChar('=');
        if (filled < KWidth)
            bar[filled] = QChar('>');
        line += QString("  %1% [%2] %3 / %4  %5")
                    .arg(percent, 3)
                    .arg(bar, SizeText(bytes), SizeText(total), RateText(rate));
        if (rate > 0)
            line += "  " + DurationText(static_cast<qint64>((total - shown) / rate + 0.5)) + " left";
    } else {
        line += QString("  %1  %2").arg(SizeText(bytes), RateText(rate));
    }
    return line;
}

void ProgressBar::Show(const QString& label, qint64 bytes, qint64 total, double rate)
{
    if (!m_enabled)
        return;
    const QString line = Line(label, bytes, total, rate);
    // Blanks cover the rest of a longer previous line.
    const int pad = m_lastWidth > line.size() ? m_lastWidth - line.size() : 0;
    const QByteArray out = "\r" + line.toLocal8Bit() + QByteArray(pad, ' ');
    std::fwrite(out.constData(), 1, static_cast<size_t>(out.size()), stderr);
    std::fflush(stderr);
    m_lastWidth = line.size();
    m_drawn = true;
}

void ProgressBar::Done()
{
    if (!m_drawn)
        return;
    std::fputc('\n', stderr);
    std::fflush(stderr);
    m_drawn = false;
    m_lastWidth = 0;
}

}  // namespace velafetch
