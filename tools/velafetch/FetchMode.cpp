#include "FetchMode.h"

#include "HttpJob.h"
#include "Output.h"
#include "Progress.h"
#include "Report.h"

#include "src/CQHttpSocketEngine.h"
#include "src/CookieHolder.h"
#include "src/DNSCache.h"
#include "src/HttpData.h"
#include "src/MLHttpEngine.h"
#include "src/ProxyConfig.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSslCertificate>
#include <QStandardPaths>
#include <QTimer>

#include <climits>
#include <cstdio>
#include <memory>
#include <vector>

namespace velafetch {

namespace {

const int KProgressIntervalMs = 200;
// The answer to a range request (RFC 9110, section 15.3.7).
const int KStatusPartialContent = 206;

QString DefaultDnsCacheDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) + "/velafetch";
}

class FetchRun : public QObject, public TransferObserver
{
public:
    explicit FetchRun(const Options& options);
    ~FetchRun() override;

    // Prepares the transfers; KExitOk, or KExitUsage after printing why.
    [[nodiscard]] int Prepare();
    [[nodiscard]] int Run();

    void OnTransferHead(Transfer& transfer, CHttpResponseHead& head) override;
    void OnTransferData(Transfer& transfer, const unsigned char* data, int len) override;
    void OnTransferEnd(Transfer& transfer) override;
    void OnAllDone() override;

private:
    struct Target
    {
        std::unique_ptr<Output> output;
        qint64 resumeFrom = -1;
        QString label;
    };

    void Message(const QString& text);
    void ShowProgress();
    [[nodiscard]] bool Large(const Transfer& t) const;
    [[nodiscard]] static double Rate(const Transfer& t);

    const Options& m_options;
    std::unique_ptr<QCookieHolder> m_cookies;
    std::unique_ptr<FetchSession> m_session;
    std::vector<Target> m_targets;
    ProgressBar m_progress;
    QTimer m_progressTimer;
    int m_failures = 0;
};

FetchRun::FetchRun(const Options& options) : m_options(options)
{
    m_progressTimer.setInterval(KProgressIntervalMs);
    connect(&m_progressTimer, &QTimer::timeout, this, &FetchRun::ShowProgress);
}

FetchRun::~FetchRun()
{
    m_session.reset();
}

int FetchRun::Prepare()
{
    QString error;
    if (!ApplyNetworkSettings(m_options, error)) {
        PrintError(error);
        return KExitUsage;
    }
    if (!m_options.formFile.isEmpty() && !QFileInfo(m_options.formFile).isReadable()) {
        PrintError(QString("%1: no such readable file").arg(m_options.formFile));
        return KExitUsage;
    }
    QByteArray postData;
    if (m_options.postData) {
        postData = *m_options.postData;
        if (postData.startsWith('@')) {
            QFile file(QString::fromLocal8Bit(postData.mid(1)));
            if (!file.open(QIODevice::ReadOnly)) {
                PrintError(QString("%1: cannot read").arg(file.fileName()));
                return KExitUsage;
            }
            postData = file.readAll();
        }
    }
    if (!m_options.cookiesDir.isEmpty()) {
        if (!QDir().mkpath(m_options.cookiesDir)) {
            PrintError(QString("%1: cannot create the cookie directory").arg(m_options.cookiesDir));
            return KExitUsage;
        }
        m_cookies = std::make_unique<QCookieHolder>();
        m_cookies->ConstructL(CQWString(QDir(m_options.cookiesDir).absolutePath()));
    }

    m_session = std::make_unique<FetchSession>(m_options.engines, nullptr, this);
    if (m_cookies)
        m_session->EnableCookies(m_cookies.get());
    if (m_options.verbose)
        m_session->SetReportLog([this](const QString& line) { Message("* " + line); });
    m_session->SetTimeLimits(m_options.maxTimeMs, m_options.connectTimeoutMs);

    int lastStdout = -1;
    for (int i = 0; i < m_options.urls.size(); ++i) {
        const QByteArray url = m_options.urls.at(i).toUtf8();
        TransferOrder order;
        order.url = url;
        order.id = m_options.idChoice == IdChoice::Fixed ? m_options.fixedId : i + 1;
        if (!m_options.formFile.isEmpty()) {
            order.kind = TransferOrder::Kind::PostFile;
            order.body = m_options.fields;
            order.filePath = QFileInfo(m_options.formFile).absoluteFilePath();
            order.fieldName = m_options.formField;
        } else if (m_options.postData) {
            order.kind = TransferOrder::Kind::Post;
            order.body = postData;
        }

        Target target;
        QString path;
        if (i < m_options.outputs.size()) {
            path = m_options.outputs.at(i);
        } else if (m_options.remoteName) {
            const CQSString narrow(url.constData(), url.size());
            CQWString name;
            if (CHttpData::GetFileNameFromURL(&narrow, name))
                path = name.ToQString();
        }
        if (path.isEmpty()) {
            target.output = std::make_unique<Output>();
            target.label = m_options.urls.at(i);
            order.after = lastStdout;
            lastStdout = i;
        } else {
            target.output = std::make_unique<Output>(path);
            target.label = QFileInfo(path).fileName();
            if (m_options.resume) {
                const QFileInfo info(path);
                if (info.exists() && info.size() > 0) {
                    target.resumeFrom = info.size();
                    order.resumeOffset = info.size();
                }
            }
        }
        m_targets.push_back(std::move(target));
        (void)m_session->Add(order);
    }
    return KExitOk;
}

int FetchRun::Run()
{
    if (m_progress.Enabled())
        m_progressTimer.start();
    m_session->Start();
    return QCoreApplication::exec();
}

void FetchRun::Message(const QString& text)
{
    // Bodies received so far come out before the line that follows them.
    Output::FlushAll();
    m_progress.Done();
    const QByteArray line = text.toLocal8Bit() + '\n';
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    std::fflush(stderr);
}

void FetchRun::OnTransferHead(Transfer& transfer, CHttpResponseHead&)
{
    Target& target = m_targets.at(static_cast<size_t>(transfer.index));
    bool append = false;
    if (target.resumeFrom >= 0) {
        if (transfer.status == KStatusPartialContent && transfer.rangeStart == target.resumeFrom) {
            append = true;
        } else if (transfer.status == KStatusPartialContent) {
            m_session->FailTransfer(transfer, QString("the server resumed at byte %1 instead of %2")
                                                  .arg(transfer.rangeStart)
                                                  .arg(target.resumeFrom));
            return;
        } else if (m_options.verbose) {
            Message(QString("* %1: the server sent the whole file; starting over").arg(target.label));
        }
        // The total of a resumed download counts the bytes already there.
        if (append && transfer.contentLength >= 0)
            transfer.contentLength += target.resumeFrom;
    }
    if (!target.output->Open(append))
        m_session->FailTransfer(transfer, target.output->Error());
}

void FetchRun::OnTransferData(Transfer& transfer, const unsigned char* data, int len)
{
    Output& output = *m_targets.at(static_cast<size_t>(transfer.index)).output;
    if (!output.Write(data, len))
        m_session->FailTransfer(transfer, output.Error());
}

bool FetchRun::Large(const Transfer& t) const
{
    return t.contentLength > ProgressBar::KThreshold || t.bytes > ProgressBar::KThreshold;
}

double FetchRun::Rate(const Transfer& t)
{
    const qint64 ms = t.clock.isValid() ? t.clock.elapsed() : 0;
    return ms > 0 ? static_cast<double>(t.bytes) * 1000.0 / static_cast<double>(ms) : 0.0;
}

void FetchRun::ShowProgress()
{
    qint64 bytes = 0;
    qint64 total = 0;
    double rate = 0;
    int count = 0;
    QString label;
    for (int i = 0; i < m_session->Count(); ++i) {
        const Transfer& t = m_session->At(i);
        if (t.state != Transfer::State::Active || !Large(t))
            continue;
        const qint64 before = m_targets.at(static_cast<size_t>(i)).resumeFrom > 0 && t.contentLength >= 0
                                  ? m_targets.at(static_cast<size_t>(i)).resumeFrom
                                  : 0;
        bytes += before + t.bytes;
        total = (total < 0 || t.contentLength < 0) ? -1 : total + t.contentLength;
        rate += Rate(t);
        label = m_targets.at(static_cast<size_t>(i)).label;
        ++count;
    }
    if (count == 0)
        return;
    if (count > 1)
        label = QString("%1 transfers").arg(count);
    m_progress.Show(label, bytes, total, rate);
}

void FetchRun::OnTransferEnd(Transfer& transfer)
{
    Target& target = m_targets.at(static_cast<size_t>(transfer.index));
    const QString url = QString::fromUtf8(transfer.order.url);
    if (m_progress.Enabled() && transfer.outcome == Outcome::Completed && Large(transfer)) {
        const qint64 before = target.resumeFrom > 0 && transfer.contentLength >= 0 ? target.resumeFrom : 0;
        // The bar says 100 % once the file holds every byte.
        (void)target.output->Flush();
        m_progress.Show(target.label, before + transfer.bytes, before + transfer.bytes, Rate(transfer));
        m_progress.Done();
    }
    switch (transfer.outcome) {
    case Outcome::Completed:
        // A body-less answer still makes its (empty) file.
        if ((target.output->IsOpen() || target.output->Open(false)) && target.output->Close())
            return;
        ++m_failures;
        Message(QString("velafetch: %1: %2").arg(url, target.output->Error()));
        return;
    case Outcome::Redirected:
        (void)target.output->Close();
        Message(QString("velafetch: %1: redirected to %2 (not followed for %3 requests)")
                    .arg(url, QString::fromUtf8(transfer.location), IdName(transfer.order.id)));
        return;
    case Outcome::Pending:
    case Outcome::HttpError:
    case Outcome::NetError:
    case Outcome::Corrupt:
    case Outcome::Local:
        break;
    }
    ++m_failures;
    // Nothing partial may look complete: without -C a file this transfer
    // wrote to goes (also one that was there before and was emptied); with
    // -C what arrived stays, so that the next run resumes from it.
    const bool written = target.output->IsOpen() && !target.output->IsStdout();
    if (written && m_options.resume) {
        (void)target.output->Close();
    } else {
        target.output->Discard();
        if (written)
            (void)QFile::remove(target.output->Path());
    }
    Message(QString("velafetch: %1: %2").arg(url, FailureText(transfer)));
}

void FetchRun::OnAllDone()
{
    m_progressTimer.stop();
    m_progress.Done();
    if (m_cookies)
        m_cookies->Save2File();
    // The DNS cache writes its file when it goes.
    CDNSCache::ReleaseRegistered();
    QCoreApplication::exit(m_failures == 0 ? KExitOk : KExitFailed);
}

}  // namespace

void PrintError(const QString& text)
{
    const QByteArray line = "velafetch: " + text.toLocal8Bit() + '\n';
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    std::fflush(stderr);
}

bool ApplyNetworkSettings(const Options& options, QString& error)
{
    const QString dnsDir = options.dnsCacheDir.isEmpty() ? DefaultDnsCacheDir() : options.dnsCacheDir;
    if (!QDir().mkpath(dnsDir)) {
        error = QString("%1: cannot create the DNS cache directory").arg(dnsDir);
        return false;
    }
    CDNSCache::SetCacheDirectory(QDir(dnsDir).absolutePath() + "/");
    // The host name is appended to the gateway URL as it stands.
    if (!options.gateway.isEmpty())
        CMLHttpEngine::SetDNSGatewayURL(options.gateway.constData());
    if (!options.caCertFile.isEmpty()) {
        const QList<QSslCertificate> certificates = QSslCertificate::fromPath(options.caCertFile, QSsl::Pem);
        if (certificates.isEmpty()) {
            error = QString("%1: no PEM certificate in it").arg(options.caCertFile);
            return false;
        }
        CQHttpSocketEngine::AddCaCertificates(certificates);
    }
    return ApplyProxySettings(options, error);
}

bool ApplyProxySettings(const Options& options, QString& error)
{
    // The environment as curl reads it; -x and --noproxy replace its parts.
    QString environmentError;
    const bool environmentUsable = CProxyConfig::ApplyEnvironment(&environmentError);
    if (options.proxy) {
        if (!CProxyConfig::SetProxy(*options.proxy)) {
            error = QString("%1: not an http:// proxy URL").arg(*options.proxy);
            return false;
        }
    } else if (!environmentUsable) {
        error = environmentError;
        return false;
    }
    if (options.noProxy)
        CProxyConfig::SetNoProxy(*options.noProxy);
    return true;
}

int RunFetch(const Options& options)
{
    FetchRun run(options);
    const int prepared = run.Prepare();
    if (prepared != KExitOk)
        return prepared;
    return run.Run();
}

}  // namespace velafetch
