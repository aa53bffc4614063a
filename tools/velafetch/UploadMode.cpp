#include "UploadMode.h"

#include "FetchMode.h"
#include "HttpJob.h"
#include "Progress.h"
#include "Report.h"

#include "BaseClass/src/CQTimer.h"
#include "src/MLHttpEngine.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>

#include <climits>
#include <cstdio>
#include <memory>

namespace velafetch {

namespace {

// The request id of the upload's reports.
const int KUploadId = 1;
// The progress report of a reply without a "Range: " line.
const int KNoProgress = -1;

// The pool does not pass on the send notifications that carry the upload's
// progress, so this mode owns one engine and hears it directly.
class UploadRun : public QObject, public MHttpNotifier, public CQTimerObserver
{
public:
    UploadRun(const Options& options, qint64 fileSize);
    ~UploadRun() override;

    [[nodiscard]] int Run();

    int HttpErrorOccured(int id, int status) override;
    int HttpHeaderReceived(int, CHttpResponseHead&, CHttpData&) override { return 1; }
    int HttpResponseReceived(int, unsigned char*, int, int) override { return 1; }
    int HttpResponseComplete(int, CQWString&) override { return 1; }
    int HttpEventNotify(int id, int event) override;
    int HttpErrorNotify(int id, int event) override;
    void HttpNotifySend(unsigned char* data, int len) override;
    void OnTimerExpired(CQTimer* timer) override;

private:
    void Verbose(const QString& text);
    void End(int status, const QString& message);

    const Options& m_options;
    qint64 m_fileSize;
    std::unique_ptr<CMLHttpEngine> m_engine;
    Transfer m_record;  // what the reports said, for the failure text
    ProgressBar m_progress;
    QElapsedTimer m_clock;
    bool m_ended = false;
};

UploadRun::UploadRun(const Options& options, qint64 fileSize)
    : m_options(options), m_fileSize(fileSize), m_engine(CMLHttpEngine::NewL(this))
{
    m_engine->SetRequestID(KUploadId);
    m_engine->SetOLFileTimerObserver(this);
    m_record.currentUrl = "http://" + options.uploadHost + "/";
}

UploadRun::~UploadRun()
{
    m_engine->SetOLFileTimerObserver(nullptr);
    m_engine->DoStopOLFileTimer();
    m_engine.reset();
}

int UploadRun::Run()
{
    QByteArray key = m_options.uploadKey;
    m_clock.start();
    m_record.clock.start();
    if (m_engine->DoPostOLFile(m_options.uploadHost.constData(), key.data(), key.size(),
                               CQWString(QFileInfo(m_options.uploadFile).absoluteFilePath()),
                               static_cast<unsigned int>(m_options.blockSize)) == 0) {
        PrintError(QString("%1: the upload could not be started").arg(QString::fromUtf8(m_options.uploadHost)));
        return KExitFailed;
    }
    return QCoreApplication::exec();
}

void UploadRun::Verbose(const QString& text)
{
    if (!m_options.verbose)
        return;
    m_progress.Done();
    const QByteArray line = "* " + text.toLocal8Bit() + '\n';
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
}

void UploadRun::End(int status, const QString& message)
{
    if (m_ended)
        return;
    m_ended = true;
    m_engine->DoStopOLFileTimer();
    m_progress.Done();
    PrintError(message);
    QCoreApplication::exit(status);
}

int UploadRun::HttpErrorOccured(int id, int status)
{
    Verbose(QString("[%1] http error %2").arg(IdName(id)).arg(status));
    End(KExitFailed, QString("%1: HTTP %2 [HTTP error %2]").arg(QString::fromUtf8(m_options.uploadHost)).arg(status));
    return 1;
}

int UploadRun::HttpEventNotify(int id, int event)
{
    Verbose(QString("[%1] event %2 %3").arg(IdName(id)).arg(event).arg(EventMeaning(event)));
    if (event == velanet::KEventLookupStarted)
        m_record.sawLookup = true;
    else if (event == velanet::KEventResolved)
        m_record.sawResolved = true;
    else if (event == velanet::KEventConnected)
        ++m_record.connects;
    return 1;
}

int UploadRun::HttpErrorNotify(int id, int event)
{
    Verbose(QString("[%1] net error %2 %3").arg(IdName(id)).arg(event).arg(EventMeaning(event)));
    m_record.outcome = Outcome::NetError;
    m_record.code = event;
    End(KExitFailed, QString("%1: %2").arg(QString::fromUtf8(m_options.uploadHost), FailureText(m_record)));
    return 1;
}

void UploadRun::HttpNotifySend(unsigned char* data, int len)
{
    // Request bytes going out carry data; a reply's progress comes without.
    if (data != nullptr || m_ended)
        return;
    Verbose(QString("[%1] progress: the server holds %2 bytes").arg(IdName(KUploadId)).arg(len));
    if (len == KNoProgress) {
        End(KExitFailed, QString("%1: the server's reply tells no progress (no Range line); upload stopped")
                             .arg(QString::fromUtf8(m_options.uploadHost)));
        return;
    }
    const qint64 ms = m_clock.elapsed();
    const double rate = ms > 0 ? static_cast<double>(len) * 1000.0 / static_cast<double>(ms) : 0.0;
    if (m_fileSize > ProgressBar::KThreshold)
        m_progress.Show(QFileInfo(m_options.uploadFile).fileName(), len, m_fileSize, rate);
    if (len >= m_fileSize) {
        End(KExitOk, QString("uploaded %1 (%2 bytes) to %3 in %4 s")
                         .arg(SizeText(m_fileSize))
                         .arg(m_fileSize)
                         .arg(QString::fromUtf8(m_options.uploadHost))
                         .arg(static_cast<double>(ms) / 1000.0, 0, 'f', 2));
    }
}

void UploadRun::OnTimerExpired(CQTimer*)
{
    End(KExitFailed, QString("%1: no reply from the server within 120 s").arg(QString::fromUtf8(m_options.uploadHost)));
}

}  // namespace

int RunUploadResumable(const Options& options)
{
    QString error;
    if (!ApplyNetworkSettings(options, error)) {
        PrintError(error);
        return KExitUsage;
    }
    const QFileInfo info(options.uploadFile);
    if (!info.isFile() || !info.isReadable()) {
        PrintError(QString("%1: no such readable file").arg(options.uploadFile));
        return KExitUsage;
    }
    if (info.size() < 1 || info.size() > INT_MAX) {
        PrintError(QString("%1: the resumable upload takes files of 1 byte to 2 GiB").arg(options.uploadFile));
        return KExitUsage;
    }
    UploadRun run(options, info.size());
    return run.Run();
}

}  // namespace velafetch
