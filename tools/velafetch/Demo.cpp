#include "Demo.h"

#include "DemoServer.h"
#include "FetchMode.h"
#include "HttpJob.h"
#include "Output.h"
#include "Report.h"

#include "src/CookieHolder.h"
#include "src/DNSCache.h"
#include "src/MLHttpPool.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdio>
#include <memory>
#include <vector>

namespace velafetch {

namespace {

// The download's request id: any value outside the four id classes.
const int KIdDownload = 0x1001;
const int KEngines = 4;
// The whole demo must be over by then.
const int KDeadlineMs = 120000;
const double KMiB = 1024.0 * 1024.0;

enum class Kind
{
    Page,
    StyleSheet,
    Image,
    Download,
};

struct Item
{
    Kind kind = Kind::Page;
    QByteArray path;        // as the transcript shows it
    QByteArray body;        // page, style sheet, images
    std::unique_ptr<Output> file;  // the download
    std::unique_ptr<QCryptographicHash> hash;
    qint64 fileBytes = 0;
    int imageIndex = 0;
    QString problem;        // why its content is wrong
};

void Print(const QString& text)
{
    const QByteArray line = text.toLocal8Bit() + '\n';
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
    std::fflush(stdout);
}

class DemoRun : public QObject, public TransferObserver
{
public:
    explicit DemoRun(bool verbose) : m_verbose(verbose) {}
    ~DemoRun() override;

    [[nodiscard]] int Run();

    void OnTransferHead(Transfer& transfer, CHttpResponseHead& head) override;
    void OnTransferData(Transfer& transfer, const unsigned char* data, int len) override;
    void OnTransferEnd(Transfer& transfer) override;
    void OnAllDone() override;

private:
    void Add(Kind kind, const QByteArray& path, int id, int imageIndex = 0);
    void FollowPageLinks(const QByteArray& page);
    void Check(Item& item, const Transfer& transfer);
    void TranscriptLine(const Item& item, const Transfer& transfer);
    void Finish(const QString& problem);

    DemoServer m_server;
    QTemporaryDir m_tmp;
    QByteArray m_base;  // "http://localhost:PORT"
    std::unique_ptr<QCookieHolder> m_cookies;
    std::unique_ptr<FetchSession> m_session;
    std::vector<std::unique_ptr<Item>> m_items;  // by transfer index
    QElapsedTimer m_clock;
    QTimer m_deadline;
    qint64 m_bytes = 0;
    int m_complete = 0;
    int m_failed = 0;
    QStringList m_problems;
    bool m_verbose;
};

DemoRun::~DemoRun()
{
    m_session.reset();
}

int DemoRun::Run()
{
    QString error;
    if (!m_tmp.isValid()) {
        PrintError("demo: no temporary directory");
        return KExitFailed;
    }
    if (!m_server.Start(error)) {
        PrintError("demo: " + error);
        return KExitFailed;
    }
    const QString cookieDir = m_tmp.filePath("cookies");
    const QString dnsDir = m_tmp.filePath("dns");
    if (!QDir().mkpath(cookieDir) || !QDir().mkpath(dnsDir) || !QDir().mkpath(m_tmp.filePath("downloads"))) {
        PrintError("demo: the temporary directories cannot be made");
        return KExitFailed;
    }
    CDNSCache::SetCacheDirectory(dnsDir + "/");
    m_cookies = std::make_unique<QCookieHolder>();
    m_cookies->ConstructL(CQWString(cookieDir));
    m_session = std::make_unique<FetchSession>(KEngines, nullptr, this);
    m_session->EnableCookies(m_cookies.get());
    if (m_verbose)
        m_session->SetReportLog([](const QString& line) { Print("    * " + line); });

    // The name, not the address: the first request looks it up and fills
    // the DNS cache, the next ones find it there.
    m_base = "http://localhost:" + QByteArray::number(m_server.Port());
    Print(QString("demo: sample site on 127.0.0.1:%1, loaded as %2/ with %3 engines")
              .arg(m_server.Port())
              .arg(QString::fromLatin1(m_base))
              .arg(KEngines));
    Print(QString("demo: cookies in %1, DNS cache in %2").arg(cookieDir, dnsDir));

    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this,
            [this] { Finish(QString("not finished within %1 s").arg(KDeadlineMs / 1000)); });
    m_deadline.start(KDeadlineMs);
    m_clock.start();
    Add(Kind::Page, "/", CMLHttpPool::KIdPage);
    m_session->Start();
    return QCoreApplication::exec();
}

void DemoRun::Add(Kind kind, const QByteArray& path, int id, int imageIndex)
{
    auto item = std::make_unique<Item>();
    item->kind = kind;
    item->path = path;
    item->imageIndex = imageIndex;
    if (kind == Kind::Download) {
        item->file = std::make_unique<Output>(m_tmp.filePath("downloads/" + QFileInfo(QString::fromUtf8(path)).fileName()));
        item->hash = std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
    }
    m_items.push_back(std::move(item));
    TransferOrder order;
    order.url = m_base + path;
    order.id = id;
    (void)m_session->Add(order);
}

void DemoRun::OnTransferHead(Transfer& transfer, CHttpResponseHead&)
{
    Item& item = *m_items.at(static_cast<size_t>(transfer.index));
    if (item.file && !item.file->Open(false))
        m_session->FailTransfer(transfer, item.file->Error());
}

void DemoRun::OnTransferData(Transfer& transfer, const unsigned char* data, int len)
{
    Item& item = *m_items.at(static_cast<size_t>(transfer.index));
    m_bytes += len;
    if (!item.file) {
        item.body.append(reinterpret_cast<const char*>(data), len);
        return;
    }
    item.hash->addData(QByteArray::fromRawData(reinterpret_cast<const char*>(data), len));
    item.fileBytes += len;
    if (!item.file->Write(data, len))
        m_session->FailTransfer(transfer, item.file->Error());
}

void DemoRun::Check(Item& item, const Transfer& transfer)
{
    switch (item.kind) {
    case Kind::Page:
        if (transfer.outcome == Outcome::Redirected) {
            if (!transfer.location.startsWith(m_base + "/"))
                item.problem = "redirected to an unexpected location " + QString::fromUtf8(transfer.location);
        } else if (item.body != m_server.Page()) {
            item.problem = "the page differs from the one served";
        }
        return;
    case Kind::StyleSheet:
        if (item.body != m_server.StyleSheet())
            item.problem = "the decoded style sheet differs from the one served";
        return;
    case Kind::Image:
        if (item.body != m_server.Image(item.imageIndex))
            item.problem = "the image differs from the one served";
        return;
    case Kind::Download:
        if (!item.file->Close())
            item.problem = item.file->Error();
        else if (item.fileBytes != DemoServer::KDownloadSize || QFileInfo(item.file->Path()).size() != item.fileBytes)
            item.problem = QString("the download has %1 bytes, not %2").arg(item.fileBytes).arg(DemoServer::KDownloadSize);
        else if (item.hash->result() != m_server.DownloadDigest())
            item.problem = "the download's SHA-256 differs from the one served";
        return;
    }
}

void DemoRun::TranscriptLine(const Item& item, const Transfer& transfer)
{
    QString result;
    switch (transfer.outcome) {
    case Outcome::Redirected:
        // A 3xx head is not reported, only its location.
        result = "redirect -> " + QString::fromUtf8(transfer.location.mid(m_base.size()));
        break;
    case Outcome::Completed:
        result = QString("%1 %2").arg(transfer.status).arg(SizeText(transfer.bytes), 9);
        if (transfer.contentEncoding != 0)
            result += " gzip";
        if (transfer.bodyType == CHttpResponseHead::KBodyChunked)
            result += " chunked";
        break;
    default:
        result = "FAILED: " + FailureText(transfer);
        break;
    }
    QStringList events;
    for (const int e : transfer.events)
        events << QString::number(e);
    Print(QString("  GET %1 %2 %3 %4 ms  events %5")
              .arg(QString::fromUtf8(item.path), -20)
              .arg(IdName(transfer.order.id), -8)
              .arg(result, -32)
              .arg(transfer.elapsedMs, 5)
              .arg(events.isEmpty() ? QString("-") : events.join(' ')));
    if (!item.problem.isEmpty())
        Print("    problem: " + item.problem);
}

void DemoRun::OnTransferEnd(Transfer& transfer)
{
    Item& item = *m_items.at(static_cast<size_t>(transfer.index));
    if (transfer.Failed()) {
        if (item.file)
            item.file->Discard();
        ++m_failed;
        TranscriptLine(item, transfer);
        return;
    }
    Check(item, transfer);
    TranscriptLine(item, transfer);
    if (!item.problem.isEmpty()) {
        ++m_failed;
        return;
    }
    ++m_complete;
    if (item.kind != Kind::Page)
        return;
    // The page id's redirect is only reported: like the browser, the demo
    // asks for the new location itself (once).
    if (transfer.outcome == Outcome::Redirected) {
        if (transfer.redirects > 0 && m_items.size() < 2)
            Add(Kind::Page, transfer.location.mid(m_base.size()), CMLHttpPool::KIdPage);
        return;
    }
    FollowPageLinks(item.body);
}

void DemoRun::FollowPageLinks(const QByteArray& page)
{
    static const QRegularExpression link(R"#((href|src)="(/[^"]*)")#");
    int images = 0;
    QRegularExpressionMatchIterator it = link.globalMatch(QString::fromUtf8(page));
    while (it.hasNext()) {
        const QByteArray path = it.next().captured(2).toUtf8();
        if (path.endsWith(".css"))
            Add(Kind::StyleSheet, path, CMLHttpPool::KIdCss);
        else if (path.endsWith(".png"))
            Add(Kind::Image, path, CMLHttpPool::KIdImage, images++);
        else
            Add(Kind::Download, path, KIdDownload);
    }
}

void DemoRun::Finish(const QString& problem)
{
    if (!problem.isEmpty())
        m_problems << problem;
    m_deadline.stop();
    const double seconds = static_cast<double>(m_clock.elapsed()) / 1000.0;
    const int requests = m_session ? m_session->Count() : 0;
    if (!m_problems.isEmpty()) {
        for (const QString& p : m_problems)
            Print("demo: problem: " + p);
    }
    Print(QString("demo: %1 requests, %2 complete, %3 failed, %4 MiB in %5 s")
              .arg(requests)
              .arg(m_complete)
              .arg(m_failed)
              .arg(static_cast<double>(m_bytes) / KMiB, 0, 'f', 1)
              .arg(seconds, 0, 'f', 2));
    const bool ok = m_failed == 0 && m_problems.isEmpty() && m_complete == requests;
    QCoreApplication::exit(ok ? KExitOk : KExitFailed);
}

void DemoRun::OnAllDone()
{
    const int expected = 6;  // page twice, style sheet, two images, download
    if (m_session->Count() != expected)
        m_problems << QString("%1 requests made, %2 expected").arg(m_session->Count()).arg(expected);

    // The cookie must have gone back with the request after the redirect,
    // and be on disk once saved.
    Print(QString("demo: cookie %1=%2 sent back after the redirect: %3")
              .arg(DemoServer::KCookieName, DemoServer::KCookieValue, m_server.CookieCameBack() ? "yes" : "no"));
    if (!m_server.CookieCameBack())
        m_problems << "the cookie set with the redirect did not come back";
    m_cookies->Save2File();
    const QString cookieFile = m_tmp.filePath("cookies") + "//Cookies//zorb@localhost.txt";
    const bool cookieSaved = QFileInfo(cookieFile).size() > 0;
    Print(QString("demo: cookie file %1: %2").arg(QFileInfo(cookieFile).fileName(), cookieSaved ? "saved" : "missing"));
    if (!cookieSaved)
        m_problems << "the cookie file was not written";

    // The DNS cache writes its file when it goes.
    CDNSCache::ReleaseRegistered();
    const QString dnsFile = m_tmp.filePath("dns/dns_cache.dat");
    const bool dnsSaved = QFileInfo(dnsFile).size() > 0;
    Print(QString("demo: DNS cache file %1: %2").arg(QFileInfo(dnsFile).fileName(), dnsSaved ? "saved" : "missing"));
    if (!dnsSaved)
        m_problems << "the DNS cache file was not written";
    Finish(QString());
}

}  // namespace

int RunDemo(const Options& options)
{
    DemoRun run(options.verbose);
    return run.Run();
}

}  // namespace velafetch
