// qnam-client: the Qt side of bench/compare, written the way a Qt user
// would fetch with Qt's own HTTP client (QNetworkAccessManager) instead of
// velanet. Every readyRead is drained into one reused buffer and discarded.
// QNetworkAccessManager asks for gzip by itself and hands on the decoded
// body, so the same client serves the gzip case.
//
//   qnam-client URL [--count N] [--parallel P] [--close] [--expect BYTES]
//               [--cacert PEM] [--timeout SECONDS]
//
// --count     fetch URL N times (default 1), keeping up to --parallel
//             requests in flight (default 1); a new one starts as each
//             finishes
// --close     send "Connection: close" with every request
// --expect    body bytes every response must bring
// --cacert    CA certificates (PEM) to trust besides the system's (https)
//
// Prints one "name value" pair per line:
//   requests N         responses that finished with status 200
//   bytes N            body bytes read, all requests together
//   seconds S          wall time from the first request to the last finish
//   rss-before-kib K   resident set just before the first request
//   hwm-kib K          peak resident set from then to the end
//   p50-ms, p99-ms     request latency percentiles, from get() to finished
// Exit status 0 when every request finished with status 200 (and BYTES
// bytes, if given), 1 otherwise, 2 on time-out, 3 on bad arguments.

#include "bench/Latency.h"
#include "bench/ProcessStats.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTimer>
#include <QUrl>

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

const int KDefaultTimeoutSeconds = 600;
const int KMaxTimeoutSeconds = 86400;
const int KMaxParallel = 1024;
const int KStatusOk = 200;
// Each readyRead is drained through this buffer.
const int KReadBufferSize = 64 * 1024;

struct Options
{
    QUrl url;
    int count = 1;
    int parallel = 1;
    bool close = false;
    long long expected = -1;
    int timeoutSeconds = KDefaultTimeoutSeconds;
    QList<QSslCertificate> caCertificates;
};

// Starts requests until `parallel` are in flight or `count` were started;
// the first failure ends the run.
class Fetcher
{
public:
    explicit Fetcher(const Options& options)
        : m_options(options), m_buffer(KReadBufferSize), m_latencies(options.count)
    {
        m_request = QNetworkRequest(options.url);
        if (!options.caCertificates.isEmpty()) {
            QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
            tls.addCaCertificates(options.caCertificates);
            m_request.setSslConfiguration(tls);
        }
        if (options.close)
            m_request.setRawHeader("Connection", "close");
    }

    void StartMore()
    {
        while (!m_bFinished && m_nInFlight < m_options.parallel && m_nStarted < m_options.count)
            StartOne();
    }

    long long Bytes() const { return m_nBytes; }
    int Completed() const { return m_nCompleted; }
    const velabench::Latencies& Latency() const { return m_latencies; }

private:
    void StartOne()
    {
        const int index = m_nStarted;
        m_latencies.Start(index);
        QNetworkReply* reply = m_manager.get(m_request);
        ++m_nStarted;
        ++m_nInFlight;
        auto bytes = std::make_shared<long long>(0);
        QObject::connect(reply, &QNetworkReply::readyRead, reply, [this, reply, bytes] { Drain(reply, *bytes); });
        QObject::connect(reply, &QNetworkReply::finished, reply, [this, reply, bytes, index] {
            Drain(reply, *bytes);
            m_latencies.Complete(index);
            OnFinished(reply, *bytes);
        });
    }

    void Drain(QNetworkReply* reply, long long& bytes)
    {
        for (;;) {
            const qint64 n = reply->read(m_buffer.data(), KReadBufferSize);
            if (n <= 0)
                return;
            bytes += n;
            m_nBytes += n;
        }
    }

    void OnFinished(QNetworkReply* reply, long long got)
    {
        --m_nInFlight;
        const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
        if (reply->error() != QNetworkReply::NoError || status != KStatusOk) {
            std::fprintf(stderr, "qnam-client: status %d, error %d: %s\n", status, static_cast<int>(reply->error()),
                         reply->errorString().toUtf8().constData());
            Finish(KExitFailed);
        } else if (m_options.expected >= 0 && got != m_options.expected) {
            std::fprintf(stderr, "qnam-client: %lld bytes, expected %lld\n", got, m_options.expected);
            Finish(KExitFailed);
        } else {
            ++m_nCompleted;
        }
        // Never delete a QObject inside its own signal.
        reply->deleteLater();
        if (m_nCompleted == m_options.count)
            Finish(KExitOk);
        else
            StartMore();
    }

    void Finish(int code)
    {
        if (m_bFinished)
            return;
        m_bFinished = true;
        QCoreApplication::exit(code);
    }

    const Options m_options;
    QNetworkAccessManager m_manager;
    QNetworkRequest m_request;
    std::vector<char> m_buffer;
    int m_nStarted = 0;
    int m_nInFlight = 0;
    int m_nCompleted = 0;
    long long m_nBytes = 0;
    bool m_bFinished = false;
    velabench::Latencies m_latencies;
};

int Usage()
{
    std::fprintf(stderr, "usage: qnam-client URL [--count N] [--parallel P] [--close] [--expect BYTES] "
                         "[--cacert PEM] [--timeout SECONDS]\n");
    return KExitUsage;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    Options options;
    QString url;
    for (int i = 1; i < args.size(); ++i) {
        bool ok = true;
        const bool hasValue = i + 1 < args.size();
        if (args[i] == "--count" && hasValue)
            options.count = args[++i].toInt(&ok);
        else if (args[i] == "--parallel" && hasValue)
            options.parallel = args[++i].toInt(&ok);
        else if (args[i] == "--close")
            options.close = true;
        else if (args[i] == "--expect" && hasValue)
            options.expected = args[++i].toLongLong(&ok);
        else if (args[i] == "--timeout" && hasValue)
            options.timeoutSeconds = args[++i].toInt(&ok);
        else if (args[i] == "--cacert" && hasValue) {
            options.caCertificates = QSslCertificate::fromPath(args[++i]);
            ok = !options.caCertificates.isEmpty();
        } else if (url.isEmpty() && !args[i].startsWith("--"))
            url = args[i];
        else
            ok = false;
        if (!ok)
            return Usage();
    }
    options.url = QUrl(url, QUrl::StrictMode);
    if (url.isEmpty() || !options.url.isValid() || options.count < 1 || options.parallel < 1 ||
        options.parallel > KMaxParallel || options.timeoutSeconds <= 0 ||
        options.timeoutSeconds > KMaxTimeoutSeconds)
        return Usage();

    Fetcher fetcher(options);
    QTimer::singleShot(options.timeoutSeconds * 1000, &app, [] { QCoreApplication::exit(KExitTimedOut); });

    const long long rssBefore = velabench::StatusKib("VmRSS");
    velabench::ResetPeakRss();
    QElapsedTimer clock;
    clock.start();
    fetcher.StartMore();
    const int code = app.exec();
    const double seconds = static_cast<double>(clock.nsecsElapsed()) / 1e9;
    const long long hwm = velabench::StatusKib("VmHWM");

    std::printf("requests %d\nbytes %lld\nseconds %.6f\nrss-before-kib %lld\nhwm-kib %lld\n", fetcher.Completed(),
                fetcher.Bytes(), seconds, rssBefore, hwm);
    fetcher.Latency().Print();
    if (code == KExitTimedOut)
        std::fprintf(stderr, "qnam-client: not done within %d s\n", options.timeoutSeconds);
    return code;
}
