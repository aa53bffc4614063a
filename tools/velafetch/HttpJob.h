#ifndef VELAFETCH_HTTPJOB_H
#define VELAFETCH_HTTPJOB_H

// FetchSession runs any number of HTTP transfers through one CMLHttpPool.
//
// The pool has no queue: a request is refused when no engine is idle. The
// session therefore keeps its own queue and submits the next transfers
// whenever the event loop comes back after a transfer has ended.
//
// Reports carry only the request id, so at most one transfer with a given id
// is under way at a time: a transfer waits while another transfer, or an
// engine still busy with that id, holds it. A gzip body completes with the
// end of its stream while its engine stays busy until the server closes
// (and then reports net error 34 for an id that has already completed);
// reports for an id without a transfer under way are dropped, and such an
// engine is cancelled once its transfer has ended so that it is free again.
//
// A transfer whose id no busy engine carries any more, without a final
// report, is failed by a watchdog (the engine ends some requests silently,
// for example an upload whose file cannot be read).

#include "src/MLHttpPool.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>
#include <vector>

class CIAPConnectEngine;
class QCookieHolder;

namespace velafetch {

enum class Outcome
{
    Pending,     // queued or under way
    Completed,   // the whole body arrived
    Redirected,  // a page or prefetch id got a 3xx: reported, not followed
    HttpError,   // a status outside 200..206 and 300..307
    NetError,    // a network failure (lookup, connect, socket, head size)
    Corrupt,     // a gzip body that does not decode
    Local,       // failed here: not submitted, file error, lost request
};

struct TransferOrder
{
    enum class Kind
    {
        Get,
        Post,
        PostFile,
    };
    Kind kind = Kind::Get;
    QByteArray url;
    int id = 0;
    qint64 resumeOffset = -1;  // a range request from this byte; -1: whole resource
    QByteArray body;        // POST body, or the form fields of a file upload
    QString filePath;       // file upload: the file and its form field name
    QString fieldName;
    int after = -1;         // index of a transfer that must end before this one starts
};

struct Transfer
{
    enum class State
    {
        Queued,
        Active,
        Done,
    };

    int index = 0;
    TransferOrder order;
    State state = State::Queued;
    QByteArray currentUrl;  // after redirects followed by the engine
    QElapsedTimer clock;    // from submission
    QElapsedTimer exchangeClock;  // from submission or the last redirect followed
    qint64 elapsedMs = 0;   // set when done

    // What the reports said.
    std::vector<int> events;  // net events, in order
    bool sawLookup = false;
    bool sawResolved = false;
    int connects = 0;
    bool headReceived = false;
    int status = 0;
    int bodyType = 0;
    int contentEncoding = 0;
    qint64 rangeStart = -1;
    qint64 contentLength = -1;  // the decoded body's length when the head tells it
    qint64 bytes = 0;           // body bytes handed up
    int redirects = 0;

    Outcome outcome = Outcome::Pending;
    int code = 0;          // HTTP status or event number of the failure
    QByteArray location;   // the last Location reported
    QString localReason;   // Outcome::Local

    bool Failed() const { return outcome != Outcome::Pending && outcome != Outcome::Completed && outcome != Outcome::Redirected; }
};

// What the owner of a session hears. Calls come from the pool's reports;
// the transfer is already updated.
class TransferObserver
{
public:
    // A 2xx head; the body follows.
    virtual void OnTransferHead(Transfer& transfer, CHttpResponseHead& head) = 0;
    virtual void OnTransferData(Transfer& transfer, const unsigned char* data, int len) = 0;
    // The transfer has ended (any outcome).
    virtual void OnTransferEnd(Transfer& transfer) = 0;
    // Everything has ended.
    virtual void OnAllDone() = 0;

protected:
    TransferObserver() = default;
    ~TransferObserver() = default;
};

class FetchSession : public QObject, public MHttpPoolNotifier
{
    Q_OBJECT

public:
    FetchSession(int engines, CIAPConnectEngine* iap, TransferObserver* observer);
    ~FetchSession() override;
    FetchSession(const FetchSession&) = delete;
    FetchSession& operator=(const FetchSession&) = delete;

    // Cookies: sent and stored by the pool; the session also stores each
    // Set-Cookie line under the URL it came for (the pool's record carries
    // no URL). holder is not owned.
    void EnableCookies(QCookieHolder* holder);
    // One line per pool report (for -v); empty: no lines.
    void SetReportLog(std::function<void(const QString&)> log) { m_log = std::move(log); }
    // Time limits of every transfer, in milliseconds (0: none): maxTimeMs
    // from submission to the end, connectTimeoutMs from submission (and
    // from each redirect the engine follows) to the connection. A transfer
    // over a limit is cancelled through the pool and ends Outcome::Local
    // with "timed out after S s [--max-time]" (or [--connect-timeout]).
    void SetTimeLimits(qint64 maxTimeMs, qint64 connectTimeoutMs);

    // Queues a transfer; returns its index.
    int Add(const TransferOrder& order);
    // Submits what can start now; the rest follows as engines free up.
    void Start();
    // Ends a transfer here (for example its output cannot be written): the
    // engine is cancelled and the transfer ends with Outcome::Local.
    void FailTransfer(Transfer& transfer, const QString& reason);

    Transfer& At(int index) { return *m_transfers.at(static_cast<size_t>(index)); }
    int Count() const { return static_cast<int>(m_transfers.size()); }
    bool AllDone() const;
    CMLHttpPool* Pool() const { return m_pool.get(); }

    // ---- MHttpPoolNotifier
    int HttpErrorOccured(int id, int status) override;
    int HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData& data) override;
    int HttpResponseReceived(int id, unsigned char* data, int len, int n) override;
    int HttpResponseComplete(int id, CQWString& recvFile) override;
    int HttpEventNotify(int id, int event) override;
    int HttpErrorNotify(int id, int event) override;
    int HttpEngine_URLChange(int id, CQSString& location) override;

private:
    // Submission results.
    enum class Submit
    {
        Started,
        NoEngine,   // no idle engine now
        Refused,    // an idle engine refused the request
    };

    [[nodiscard]] Transfer* ActiveById(int id);
    [[nodiscard]] bool IdBusy(int id) const;
    [[nodiscard]] bool Startable(const Transfer& transfer) const;
    [[nodiscard]] Submit TrySubmit(Transfer& transfer);
    void Pump();
    void SchedulePump();
    void Finish(Transfer& transfer, Outcome outcome, int code);
    void CancelId(int id);
    void Watch();
    void CheckDeadlines();
    void Log(int id, const QString& text);

    std::unique_ptr<CMLHttpPool> m_pool;
    TransferObserver* m_observer;  // not owned
    QCookieHolder* m_cookies = nullptr;  // not owned
    std::function<void(const QString&)> m_log;
    std::vector<std::unique_ptr<Transfer>> m_transfers;
    bool m_pumpPending = false;
    bool m_allDoneReported = false;
    QTimer m_retryTimer;  // queued transfers wait for an engine
    QTimer m_watchTimer;  // active transfers whose engine let go silently
    QTimer m_deadlineTimer;  // time limits, when there are any
    qint64 m_maxTimeMs = 0;
    qint64 m_connectTimeoutMs = 0;
    std::vector<int> m_suspects;  // indexes seen lost once
};

}  // namespace velafetch

#endif
