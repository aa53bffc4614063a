#ifndef VELAFETCH_PROGRESS_H
#define VELAFETCH_PROGRESS_H

// The progress bar on stderr: one line redrawn in place with a carriage
// return, only when stderr is a terminal and only for transfers over 1 MiB.

#include <QString>

namespace velafetch {

class ProgressBar
{
public:
    // Transfers above this size (known length, or bytes so far) get a bar.
    static constexpr qint64 KThreshold = 1 << 20;
    static constexpr int KWidth = 30;

    // Enabled when stderr is a terminal.
    ProgressBar();
    bool Enabled() const { return m_enabled; }

    // Redraws the line: label, bytes, total (-1 unknown), rate in bytes per
    // second, elapsed milliseconds.
    void Show(const QString& label, qint64 bytes, qint64 total, double rate);
    // Ends the line when one was drawn.
    void Done();

    // The line's text: "name  42% [=====>    ] 420.0 MiB / 1.00 GiB  300.0 MiB/s  0:02 left"
    // or, without a total, "name  420.0 MiB  300.0 MiB/s".
    [[nodiscard]] static QString Line(const QString& label, qint64 bytes, qint64 total, double rate);

private:
    bool m_enabled;
    bool m_drawn = false;
    int m_lastWidth = 0;
};

}  // namespace velafetch

#endif
