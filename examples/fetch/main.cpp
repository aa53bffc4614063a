// fetch: downloads one URL through a CMLHttpPool, to a file or to stdout.
//   fetch URL [OUTPUT]
// Exit status 0 when the body arrived whole, 1 when the request failed,
// 2 for a bad command line.

#include "src/DNSCache.h"
#include "src/HttpData.h"
#include "src/MLHttpPool.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <memory>

namespace {

// Any id outside the page, prefetch, style sheet and image classes is a
// download: redirects are followed, the body is not asked for in gzip.
const int KDownloadId = 1;

class Fetch : public MHttpPoolNotifier
{
public:
    explicit Fetch(QFile& out) : m_out(out) {}
    int exitCode() const { return m_exitCode; }

    int HttpErrorOccured(int, int status) override
    {
        std::fprintf(stderr, "fetch: HTTP %d\n", status);
        return Finish(1);
    }
    int HttpHeaderReceived(int, CHttpResponseHead&, CHttpData&) override { return 1; }
    int HttpResponseReceived(int, unsigned char* data, int len, int) override
    {
        if (m_out.write(reinterpret_cast<const char*>(data), len) != len) {
            std::fprintf(stderr, "fetch: cannot write the output\n");
            return Finish(1);  // 0 ends the request quietly
        }
        return 1;
    }
    int HttpResponseComplete(int, CQWString&) override
    {
        m_out.flush();
        return Finish(0);
    }
    int HttpEventNotify(int, int) override { return 1; }
    int HttpErrorNotify(int, int event) override
    {
        std::fprintf(stderr, "fetch: net error %d\n", event);
        return Finish(1);
    }
    int HttpEngine_URLChange(int, CQSString&) override { return 1; }

private:
    int Finish(int code)
    {
        m_exitCode = code;
        QCoreApplication::exit(code);
        return 0;
    }

    QFile& m_out;
    int m_exitCode = 1;
};

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    if (args.size() < 2 || args.size() > 3) {
        std::fprintf(stderr, "usage: fetch URL [OUTPUT]\n");
        return 2;
    }

    QFile out;
    const bool opened = args.size() == 3 ? (out.setFileName(args[2]), out.open(QIODevice::WriteOnly))
                                         : out.open(stdout, QIODevice::WriteOnly);
    if (!opened) {
        std::fprintf(stderr, "fetch: cannot open the output\n");
        return 2;
    }

    // The DNS cache file goes to a directory of this run, not to the
    // library's default directory.
    QTemporaryDir dnsDir;
    if (!dnsDir.isValid())
        return 1;
    CDNSCache::SetCacheDirectory(dnsDir.path() + "/");

    Fetch fetch(out);
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&fetch, nullptr, 1));
    const QByteArray url = args[1].toUtf8();
    if (pool->DoGet(CQSString(url.constData(), url.size()), KDownloadId, nullptr) != CMLHttpPool::KStarted) {
        std::fprintf(stderr, "fetch: request refused\n");
        return 1;
    }
    app.exec();
    pool.reset();
    CDNSCache::ReleaseRegistered();
    return fetch.exitCode();
}
