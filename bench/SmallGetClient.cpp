// velanet-small-gets: the velanet side of the small-request case of
// bench/compare. A CMLHttpPool of --parallel engines fetches one URL
// --count times. The pool has no queue of its own, so this client keeps
// one: every terminal report (completion, HTTP error, network error) starts
// the next request at once, from inside the report, on the engine that
// just became idle. Every request of the engine says "Connection: close",
// so each GET has a connection of its own.
//
//   velanet-small-gets URL [--count N] [--parallel P] [--expect BYTES]
//                      [--cacert PEM] [--timeout SECONDS]
//
// --count     requests in all (default 5000)
// --parallel  engines in the pool, and so requests in flight (default 8)
// --expect    body bytes every response must bring
// --cacert    CA certificates (PEM) to trust for an https URL
//
// Prints one "name value" pair per line:
//   requests N         requests that completed
//   bytes N            body bytes reported, all requests together
//   seconds S          wall time from the first request to the last report
//   rss-before-kib K   resident set just before the first request
//   hwm-kib K          peak resident set from then to the end
//   p50-ms, p99-ms     request latency percentiles, from DoGet to the
//                      completion report
// Exit status 0 when every request completed (each with BYTES bytes, if
// given), 1 on any failure report or size mismatch, 2 on time-out, 3 on
// bad arguments.

#include "bench/Latency.h"
#include "bench/ProcessStats.h"
#include "src/CQHttpSocketEngine.h"
#include "src/MLHttpPool.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSslCertificate>
#include <QTimer>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

enum
{
    KExitOk = 0,
    KExitFailed = 1,
    KExitTimedOut = 2,
    KExitUsage = 3,
};

const int KDefaultCount = 5000;
const int KDefaultParallel = 8;
const int KMaxParallel = 256;
const int KMaxCount = 10000000;
const int KDefaultTimeoutSeconds = 600;
const int KMaxTimeoutSeconds = 86400;
// Request ids are 1..count: plain downloads, whose redirects the engine
// follows itself, and far from the pool's id classes.
const int KFirstId = 1;
// The engine's decompress failure, the one event that ends a request here.
const int KEventDecompressFailed = 48;

class SmallGets : public MHttpPoolNotifier
{
public:
    SmallGets(const CQSString& url, int count, int parallel, long long expected)
        : m_url(url), m_nCount(count), m_nParallel(parallel), m_nExpected(expected),
          m_bytes(static_cast<size_t>(count) + KFirstId, 0), m_latencies(count)
    {
    }

    void SetPool(CMLHttpPool* pool) { m_pPool = pool; }

    // Starts requests while an engine is idle and requests are left. When
    // the pool refuses although fewer than `parallel` are in flight (an
    // engine not yet idle), the start is tried again from the event loop.
    void StartMore()
    {
        while (!m_bFinished && m_nInFlight < m_nParallel && m_nStarted < m_nCount) {
            const int id = KFirstId + m_nStarted;
            m_latencies.Start(m_nStarted);
            if (m_pPool->DoGet(m_url, id, nullptr) != CMLHttpPool::KStarted) {
                ++m_nRefusals;
                if (!m_bRetryQueued) {
                    m_bRetryQueued = true;
                    QTimer::singleShot(0, [this] {
                        m_bRetryQueued = false;
                        StartMore();
                    });
                }
                return;
            }
            ++m_nStarted;
            ++m_nInFlight;
        }
    }

    int HttpErrorOccured(int id, int status) override
    {
        std::fprintf(stderr, "velanet-small-gets: request %d: HTTP status %d\n", id, status);
        Finish(KExitFailed);
        return 0;
    }

    int HttpHeaderReceived(int, CHttpResponseHead&, CHttpData&) override { return 1; }

    int HttpResponseReceived(int id, unsigned char*, int len, int) override
    {
        if (IsKnown(id))
            m_bytes[static_cast<size_t>(id)] += len;
        m_nBytes += len;
        return 1;
    }

    int HttpResponseComplete(int id, CQWString&) override
    {
        if (!IsKnown(id)) {
            std::fprintf(stderr, "velanet-small-gets: completion for unknown request %d\n", id);
            Finish(KExitFailed);
            return 1;
        }
        const long long got = m_bytes[static_cast<size_t>(id)];
        if (m_nExpected >= 0 && got != m_nExpected) {
            std::fprintf(stderr, "velanet-small-gets: request %d: %lld bytes, expected %lld\n", id, got, m_nExpected);
            Finish(KExitFailed);
            return 1;
        }
        m_latencies.Complete(id - KFirstId);
        --m_nInFlight;
        ++m_nCompleted;
        if (m_nCompleted == m_nCount)
            Finish(KExitOk);
        else
            StartMore();
        return 1;
    }

    int HttpEventNotify(int id, int event) override
    {
        if (event == KEventDecompressFailed) {
            std::fprintf(stderr, "velanet-small-gets: request %d: body did not decode\n", id);
            Finish(KExitFailed);
        }
        return 1;
    }

    int HttpErrorNotify(int id, int event) override
    {
        std::fprintf(stderr, "velanet-small-gets: request %d: network error event %d\n", id, event);
        Finish(KExitFailed);
        return 0;
    }

    int HttpEngine_URLChange(int id, CQSString& location) override
    {
        std::fprintf(stderr, "velanet-small-gets: request %d redirected to %s\n", id, location.GetDataPtr());
        Finish(KExitFailed);
        return 0;
    }

    bool Finished() const { return m_bFinished; }
    int Code() const { return m_nCode; }
    int Completed() const { return m_nCompleted; }
    long long Bytes() const { return m_nBytes; }
    long long Refusals() const { return m_nRefusals; }
    const velabench::Latencies& Latency() const { return m_latencies; }

private:
    bool IsKnown(int id) const { return id >= KFirstId && id < KFirstId + m_nStarted; }

    void Finish(int code)
    {
        if (m_bFinished)
            return;
        m_bFinished = true;
        m_nCode = code;
        QCoreApplication::exit(code);
    }

    const CQSString m_url;
    const int m_nCount;
    const int m_nParallel;
    const long long m_nExpected;
    CMLHttpPool* m_pPool = nullptr;
    std::vector<long long> m_bytes;  // body bytes by request id
    int m_nStarted = 0;
    int m_nInFlight = 0;
    int m_nCompleted = 0;
    long long m_nBytes = 0;
    long long m_nRefusals = 0;
    bool m_bRetryQueued = false;
    bool m_bFinished = false;
    int m_nCode = KExitOk;
    velabench::Latencies m_latencies;
};

int Usage()
{
    std::fprintf(stderr, "usage: velanet-small-gets URL [--count N] [--parallel P] [--expect BYTES] "
                         "[--cacert PEM] [--timeout SECONDS]\n");
    return KExitUsage;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    QByteArray url;
    int count = KDefaultCount;
    int parallel = KDefaultParallel;
    long long expected = -1;
    int timeoutSeconds = KDefaultTimeoutSeconds;
    for (int i = 1; i < args.size(); ++i) {
        bool ok = true;
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "--count" && hasValue)
            count = args[++i].toInt(&ok);
        else if (args[i] == "--parallel" && hasValue)
            parallel = args[++i].toInt(&ok);
        else if (args[i] == "--expect" && hasValue)
            expected = args[++i].toLongLong(&ok);
        else if (args[i] == "--timeout" && hasValue)
            timeoutSeconds = args[++i].toInt(&ok);
        else if (args[i] == "--cacert" && hasValue) {
            const QList<QSslCertificate> certificates = QSslCertificate::fromPath(args[++i]);
            ok = !certificates.isEmpty();
            CQHttpSocketEngine::AddCaCertificates(certificates);
        } else if (url.isEmpty() && !args[i].startsWith("--"))
            url = args[i].toUtf8();
        else
            ok = false;
        if (!ok)
            return Usage();
    }
    if (url.isEmpty() || count < 1 || count > KMaxCount || parallel < 1 || parallel > KMaxParallel ||
        timeoutSeconds <= 0 || timeoutSeconds > KMaxTimeoutSeconds)
        return Usage();

    SmallGets gets(CQSString(url.constData()), count, parallel, expected);
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&gets, nullptr, parallel));
    gets.SetPool(pool.get());
    QTimer::singleShot(timeoutSeconds * 1000, &app, [] { QCoreApplication::exit(KExitTimedOut); });

    const long long rssBefore = velabench::StatusKib("VmRSS");
    velabench::ResetPeakRss();
    QElapsedTimer clock;
    clock.start();
    gets.StartMore();
    // Reports made inside the first DoGet calls come before the loop runs.
    int code = gets.Finished() ? gets.Code() : app.exec();
    const double seconds = static_cast<double>(clock.nsecsElapsed()) / 1e9;
    const long long hwm = velabench::StatusKib("VmHWM");
    pool.reset();

    std::printf("requests %d\nbytes %lld\nseconds %.6f\nrss-before-kib %lld\nhwm-kib %lld\nrefusals %lld\n",
                gets.Completed(), gets.Bytes(), seconds, rssBefore, hwm, gets.Refusals());
    gets.Latency().Print();
    if (code == KExitTimedOut)
        std::fprintf(stderr, "velanet-small-gets: not done within %d s\n", timeoutSeconds);
    return code;
}
