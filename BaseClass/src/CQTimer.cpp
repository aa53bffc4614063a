#include "BaseClass/src/CQTimer.h"

namespace {

constexpr int KStarted = 1;
constexpr int KRefused = 0;

int NotNegative(int ms)
{
    return ms < 0 ? 0 : ms;
}

}  // namespace

CQTimer::CQTimer(QObject* parent)
    : QObject(parent)
{
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &CQTimer::OnTimeout);
}

CQTimer::~CQTimer() = default;

int CQTimer::StartTimer(CQTimerObserver* observer, int firstMs, int intervalMs, int mode)
{
    if (!observer)
        return KRefused;
    m_pObserver = observer;
    m_nIntervalMs = NotNegative(intervalMs);
    m_bRepeat = mode == KModeRepeat;
    // The first expiry is single-shot; a repeating timer switches to its
    // interval when it fires.
    m_timer.setSingleShot(true);
    m_timer.start(NotNegative(firstMs));
    return KStarted;
}

void CQTimer::StopTimer()
{
    m_timer.stop();
    m_pObserver = nullptr;
}

void CQTimer::OnTimeout()
{
    CQTimerObserver* observer = m_pObserver;
    if (!observer)
        return;
    if (m_bRepeat) {
        // After the first expiry the timer repeats at the interval. Re-armed
        // before reporting so that the observer may stop or restart it.
        if (m_timer.isSingleShot()) {
            m_timer.setSingleShot(false);
            m_timer.start(m_nIntervalMs);
        }
    } else {
        m_pObserver = nullptr;
    }
    // Last statement: the observer may delete this timer.
    observer->OnTimerExpired(this);
}

CTimeOutTimer* CTimeOutTimer::NewL(MTimeOutNotifier& notifier, QObject* parent)
{
    return new CTimeOutTimer(notifier, parent);
}

CTimeOutTimer::CTimeOutTimer(MTimeOutNotifier& notifier, QObject* parent)
    : QObject(parent)
    , m_notifier(notifier)
{
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &CTimeOutTimer::OnTimeout);
}

CTimeOutTimer::~CTimeOutTimer() = default;

void CTimeOutTimer::After(int microseconds)
{
    const long long us = microseconds < 0 ? 0 : microseconds;
    m_timer.start(static_cast<int>((us + 999) / 1000));
}

void CTimeOutTimer::Cancel()
{
    m_timer.stop();
}

void CTimeOutTimer::OnTimeout()
{
    // Last statement: the notifier may restart or delete this timer.
    m_notifier.TimerExpired();
}
