// velanet-download: the velanet side of bench/compare. Fetches one URL with
// one CMLHttpEngine whose notifier counts and discards the body pieces, the
// way an owner that streams a download elsewhere would.
//
//   velanet-download URL [--gzip] [--expect BYTES] [--cacert PEM] [--timeout SECONDS]
//
// --gzip carries the current-page request id, the one id whose requests ask
// for "Accept-Encoding: gzip"; the engine then hands on the decoded body.
// (That id also reports redirects instead of following them.) --cacert
// trusts the CA certificates of a PEM file for an https URL.
//
// Prints one "name value" pair per line:
//   bytes N            body bytes reported to the notifier (decoded ones
//                      with --gzip)
//   seconds S          wall time from DoGet to completion
//   rss-before-kib K   resident set just before DoGet
//   hwm-kib K          peak resident set from DoGet to completion
// Exit status 0 when the body completed (with BYTES bytes, if given), 1 on
// a failure report or a size mismatch, 2 on time-out, 3 on bad arguments.

#include "bench/ProcessStats.h"
#include "src/CQHttpSocketEngine.h"
#include "src/HttpObserver.h"
#include "src/MLHttpEngine.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSslCertificate>
#include <QTimer>

#include <cstdio>
#include <memory>

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
// Ordinary download id: redirects are followed by the engine itself.
const int KRequestId = 1;
// The id that asks for gzip.
const int KGzipRequestId = velanet::KIdCurrentPage;

class DiscardingNotifier : public MHttpNotifier
{
public:
    int HttpErrorOccured(int, int status) override
    {
        std::fprintf(stderr, "velanet-download: HTTP status %d\n", status);
        Finish(KExitFailed);
        return 0;
    }

    int HttpHeaderReceived(int, CHttpResponseHead&, CHttpData&) override { return 1; }

    int HttpResponseReceived(int, unsigned char*, int len, int) override
    {
        m_nBytes += len;
        return 1;
    }

    int HttpResponseComplete(int, CQWString&) override
    {
        Finish(KExitOk);
        return 1;
    }

    int HttpEventNotify(int, int event) override
    {
        // Progress events go on; a body that does not decode ends the run.
        if (event == velanet::KEventDecompressFailed) {
            std::fprintf(stderr, "velanet-download: gzip body did not decode\n");
            Finish(KExitFailed);
        }
        return 1;
    }

    int HttpEngine_URLChange(int, CQSString& location) override
    {
        // The benchmark serves no redirect: one means a wrong URL.
        std::fprintf(stderr, "velanet-download: redirected to %s\n", location.GetDataPtr());
        Finish(KExitFailed);
        return 0;
    }

    int HttpErrorNotify(int, int event) override
    {
        std::fprintf(stderr, "velanet-download: network error event %d\n", event);
        Finish(KExitFailed);
        return 0;
    }

    long long Bytes() const { return m_nBytes; }
    bool Finished() const { return m_bFinished; }
    int Code() const { return m_nCode; }

private:
    void Finish(int code)
    {
        if (m_bFinished)
            return;
        m_bFinished = true;
        m_nCode = code;
        QCoreApplication::exit(code);
    }

    long long m_nBytes = 0;
    bool m_bFinished = false;
    int m_nCode = KExitOk;
};

int Usage()
{
    std::fprintf(stderr, "usage: velanet-download URL [--gzip] [--expect BYTES] [--cacert PEM] [--timeout SECONDS]\n");
    return KExitUsage;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments();
    QByteArray url;
    long long expected = -1;
    int timeoutSeconds = KDefaultTimeoutSeconds;
    bool gzip = false;
    for (int i = 1; i < args.size(); ++i) {
        bool ok = true;
        if (args[i] == "--expect" && i + 1 < args.size())
            expected = args[++i].toLongLong(&ok);
        else if (args[i] == "--gzip")
            gzip = true;
        else if (args[i] == "--timeout" && i + 1 < args.size())
            timeoutSeconds = args[++i].toInt(&ok);
        else if (args[i] == "--cacert" && i + 1 < args.size()) {
            const QList<QSslCertificate> certificates = QSslCertificate::fromPath(args[++i]);
            ok = !certificates.isEmpty();
            CQHttpSocketEngine::AddCaCertificates(certificates);
        }
        else if (url.isEmpty() && !args[i].startsWith("--"))
            url = args[i].toUtf8();
        else
            ok = false;
        if (!ok)
            return Usage();
    }
    if (url.isEmpty() || timeoutSeconds <= 0 || timeoutSeconds > KMaxTimeoutSeconds)
        return Usage();

    DiscardingNotifier notifier;
    std::unique_ptr<CMLHttpEngine> engine(CMLHttpEngine::NewL(&notifier));
    engine->SetRequestID(gzip ? KGzipRequestId : KRequestId);

    QTimer::singleShot(timeoutSeconds * 1000, &app, [] { QCoreApplication::exit(KExitTimedOut); });

    const long long rssBefore = velabench::StatusKib("VmRSS");
    velabench::ResetPeakRss();
    QElapsedTimer clock;
    clock.start();
    if (!engine->DoGet(url.constData(), nullptr, -1)) {
        std::fprintf(stderr, "velanet-download: DoGet refused %s\n", url.constData());
        return KExitFailed;
    }
    // A report made inside DoGet comes before the loop runs.
    int code = notifier.Finished() ? notifier.Code() : app.exec();
    const double seconds = static_cast<double>(clock.nsecsElapsed()) / 1e9;
    const long long hwm = velabench::StatusKib("VmHWM");
    engine->CancelRequest();

    std::printf("bytes %lld\nseconds %.6f\nrss-before-kib %lld\nhwm-kib %lld\n", notifier.Bytes(), seconds, rssBefore,
                hwm);
    if (code == KExitTimedOut)
        std::fprintf(stderr, "velanet-download: no completion within %d s\n", timeoutSeconds);
    if (code == KExitOk && expected >= 0 && notifier.Bytes() != expected) {
        std::fprintf(stderr, "velanet-download: %lld bytes, expected %lld\n", notifier.Bytes(), expected);
        code = KExitFailed;
    }
    return code;
}
