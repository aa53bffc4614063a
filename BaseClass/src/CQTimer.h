#ifndef VELANET_CQTIMER_H
#define VELANET_CQTIMER_H

// Two event-loop timers. Both call their observer on the thread that runs
// the Qt event loop. The observer may stop, restart or delete the timer from
// inside its callback: the timer has finished with its own state by then.

#include <QObject>
#include <QTimer>

class CQTimer;

class CQTimerObserver
{
public:
    virtual ~CQTimerObserver() = default;
    virtual void OnTimerExpired(CQTimer* timer) = 0;
};

class CQTimer : public QObject
{
    Q_OBJECT

public:
    // Repeat mode: first expiry after firstMs, then every intervalMs.
    static constexpr int KModeRepeat = 3;

    explicit CQTimer(QObject* parent = nullptr);
    ~CQTimer() override;

    // First expiry after firstMs; in KModeRepeat every intervalMs after that
    // until StopTimer, in any other mode only once. Replaces a running timer.
    // Negative times count as 0. Returns 0 for a null observer (nothing is
    // started then), nonzero otherwise.
    int StartTimer(CQTimerObserver* observer, int firstMs, int intervalMs, int mode);
    void StopTimer();
    bool IsActive() const { return m_timer.isActive(); }

private:
    void OnTimeout();

    QTimer m_timer;
    CQTimerObserver* m_pObserver = nullptr;
    int m_nIntervalMs = 0;
    bool m_bRepeat = false;
};

class MTimeOutNotifier
{
public:
    virtual ~MTimeOutNotifier() = default;
    virtual void TimerExpired() = 0;
};

class CTimeOutTimer : public QObject
{
    Q_OBJECT

public:
    // A new timer that reports to notifier; the caller owns it (or parent).
    static CTimeOutTimer* NewL(MTimeOutNotifier& notifier, QObject* parent = nullptr);
    ~CTimeOutTimer() override;

    // One expiry after the given time in microseconds (rounded up to whole
    // milliseconds; negative counts as 0). Restarts a running timer.
    void After(int microseconds);
    void Cancel();
    bool IsActive() const { return m_timer.isActive(); }

private:
    CTimeOutTimer(MTimeOutNotifier& notifier, QObject* parent);
    void OnTimeout();

    QTimer m_timer;
    MTimeOutNotifier& m_notifier;
};

#endif
