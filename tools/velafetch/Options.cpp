#include "Options.h"

#include <climits>
#include <cmath>

namespace velafetch {

namespace {

// The request id classes of the pool.
const unsigned int KIdPage = 0xF0000000u;
const unsigned int KIdPrefetch = 0xE0000000u;
const unsigned int KIdCss = 0xC0000000u;
const unsigned int KIdImage = 0xA0000000u;

bool IsHttpUrl(const QString& url)
{
    return url.startsWith("http://", Qt::CaseInsensitive) || url.startsWith("https://", Qt::CaseInsensitive);
}

// A bounded decimal number in [low, high].
bool ParseBounded(const QString& text, int low, int high, int& value)
{
    bool ok = false;
    const qlonglong v = text.toLongLong(&ok, 10);
    if (!ok || v < low || v > high)
        return false;
    value = static_cast<int>(v);
    return true;
}

// HOST:PORT with a port in 1..65535.
bool ParseHostPort(const QString& text, QString& host, quint16& port)
{
    const int colon = text.lastIndexOf(':');
    if (colon < 1)
        return false;
    int value = 0;
    if (!ParseBounded(text.mid(colon + 1), 1, 65535, value))
        return false;
    host = text.left(colon);
    port = static_cast<quint16>(value);
    return true;
}

class Parser
{
public:
    explicit Parser(const QStringList& args) : m_args(args) {}

    ParseResult Run();

private:
    // The value of the option at m_pos (moves past it); false when missing.
    bool TakeValue(const QString& option, QString& value);
    bool HandleOption(const QString& arg);
    bool HandleModeArguments();
    bool Fail(const QString& reason)
    {
        if (m_result.error.isEmpty())
            m_result.error = reason;
        return false;
    }

    const QStringList& m_args;
    int m_pos = 0;
    ParseResult m_result;
    QStringList m_positional;
    int m_modeCount = 0;
};

bool Parser::TakeValue(const QString& option, QString& value)
{
    if (m_pos + 1 >= m_args.size())
        return Fail(QString("option %1 needs a value").arg(option));
    value = m_args.at(++m_pos);
    return true;
}

bool Parser::HandleOption(const QString& arg)
{
    Options& o = m_result.options;
    QString value;
    if (arg == "-h" || arg == "--help") {
        o.mode = Mode::Help;
        return true;
    }
    if (arg == "-v" || arg == "--verbose") {
        o.verbose = true;
        return true;
    }
    if (arg == "-O" || arg == "--remote-name") {
        o.remoteName = true;
        return true;
    }
    if (arg == "-C" || arg == "--continue") {
        o.resume = true;
        return true;
    }
    if (arg == "--demo" || arg == "--tcp" || arg == "--upload-resumable" || arg == "--pick-ap") {
        ++m_modeCount;
        o.mode = arg == "--demo" ? Mode::Demo
               : arg == "--tcp" ? Mode::Tcp
               : arg == "--upload-resumable" ? Mode::UploadResumable
                                              : Mode::PickAp;
        return true;
    }
    if (!TakeValue(arg, value))
        return false;
    if (arg == "-o" || arg == "--output") {
        o.outputs << value;
    } else if (arg == "--engines") {
        if (!ParseBounded(value, 1, KMaxEngines, o.engines))
            return Fail(QString("--engines takes a number from 1 to %1").arg(KMaxEngines));
    } else if (arg == "-d" || arg == "--data") {
        o.postData = value.toUtf8();
    } else if (arg == "-F" || arg == "--form") {
        const int at = value.indexOf("=@");
        if (at < 1 || at + 2 >= value.size())
            return Fail("-F takes name=@path");
        o.formField = value.left(at);
        o.formFile = value.mid(at + 2);
    } else if (arg == "--fields") {
        o.fields = value.toUtf8();
    } else if (arg == "--cookies") {
        o.cookiesDir = value;
    } else if (arg == "--dns-cache") {
        o.dnsCacheDir = value;
    } else if (arg == "--gateway") {
        if (!IsHttpUrl(value))
            return Fail("--gateway takes an http:// URL");
        o.gateway = value.toUtf8();
    } else if (arg == "--cacert") {
        o.caCertFile = value;
    } else if (arg == "-x" || arg == "--proxy") {
        o.proxy = value;
    } else if (arg == "--noproxy") {
        o.noProxy = value;
    } else if (arg == "--id") {
        if (!ParseRequestId(value, o.fixedId))
            return Fail("--id takes page, prefetch, css, image or a number");
        o.idChoice = IdChoice::Fixed;
    } else if (arg == "--block-size") {
        if (!ParseBounded(value, 1, KMaxUploadBlock, o.blockSize))
            return Fail(QString("--block-size takes a number from 1 to %1").arg(KMaxUploadBlock));
    } else if (arg == "--iap-file") {
        o.iapFile = value;
    } else if (arg == "--max-time") {
        if (!ParseSeconds(value, o.maxTimeMs))
            return Fail(QString("--max-time takes seconds from 0 to %1 (fractions allowed)").arg(KMaxSeconds));
    } else if (arg == "--connect-timeout") {
        if (!ParseSeconds(value, o.connectTimeoutMs))
            return Fail(QString("--connect-timeout takes seconds from 0 to %1 (fractions allowed)").arg(KMaxSeconds));
    } else {
        return Fail(QString("unknown option %1").arg(arg));
    }
    return true;
}

bool Parser::HandleModeArguments()
{
    Options& o = m_result.options;
    switch (o.mode) {
    case Mode::Help:
    case Mode::Demo:
        if (!m_positional.isEmpty() && o.mode == Mode::Demo)
            return Fail("--demo takes no URL");
        return true;
    case Mode::Tcp:
        if (m_positional.size() != 1 || !ParseHostPort(m_positional.at(0), o.tcpHost, o.tcpPort))
            return Fail("--tcp takes one HOST:PORT");
        return true;
    case Mode::UploadResumable:
        if (m_positional.size() != 3)
            return Fail("--upload-resumable takes URL-HOST KEY FILE");
        o.uploadHost = m_positional.at(0).toUtf8();
        o.uploadKey = m_positional.at(1).toUtf8();
        o.uploadFile = m_positional.at(2);
        if (o.uploadHost.startsWith("http://"))
            o.uploadHost = o.uploadHost.mid(7);
        while (o.uploadHost.endsWith('/'))
            o.uploadHost.chop(1);
        if (o.uploadHost.isEmpty() || o.uploadKey.isEmpty())
            return Fail("--upload-resumable needs a host and a key");
        return true;
    case Mode::PickAp:
        if (m_positional.isEmpty())
            return Fail("--pick-ap takes at least one access point name");
        o.apNames = m_positional;
        return true;
    case Mode::Fetch:
        break;
    }
    if (m_positional.isEmpty())
        return Fail("no URL given");
    for (const QString& url : m_positional) {
        if (!IsHttpUrl(url))
            return Fail(QString("%1: only http:// and https:// URLs are supported").arg(url));
    }
    o.urls = m_positional;
    if (o.outputs.size() > o.urls.size())
        return Fail("more -o files than URLs");
    if (o.resume && !o.remoteName && o.outputs.size() < o.urls.size())
        return Fail("-C needs an output file (-o or -O) for every URL");
    if (o.postData && !o.formFile.isEmpty())
        return Fail("-d and -F cannot be combined");
    if (!o.fields.isEmpty() && o.formFile.isEmpty())
        return Fail("--fields goes with -F name=@path");
    if (o.resume && (o.postData || !o.formFile.isEmpty()))
        return Fail("-C resumes downloads only");
    return true;
}

ParseResult Parser::Run()
{
    for (m_pos = 0; m_pos < m_args.size(); ++m_pos) {
        const QString& arg = m_args.at(m_pos);
        if (arg.size() > 1 && arg.startsWith('-')) {
            if (!HandleOption(arg))
                return m_result;
        } else {
            m_positional << arg;
        }
    }
    if (m_result.options.mode == Mode::Help)
        return m_result;
    if (m_modeCount > 1) {
        Fail("--demo, --tcp, --upload-resumable and --pick-ap exclude each other");
        return m_result;
    }
    (void)HandleModeArguments();
    return m_result;
}

}  // namespace

bool ParseRequestId(const QString& text, int& id)
{
    const QString t = text.toLower();
    unsigned int value = 0;
    if (t == "page") {
        value = KIdPage;
    } else if (t == "prefetch") {
        value = KIdPrefetch;
    } else if (t == "css") {
        value = KIdCss;
    } else if (t == "image") {
        value = KIdImage;
    } else {
        bool ok = false;
        const qulonglong v = t.startsWith("0x") ? t.mid(2).toULongLong(&ok, 16) : t.toULongLong(&ok, 10);
        if (!ok || v > UINT_MAX)
            return false;
        value = static_cast<unsigned int>(v);
    }
    id = static_cast<int>(value);
    return true;
}

bool ParseSeconds(const QString& text, qint64& ms)
{
    // Plain decimal notation only: digits with at most one '.'.
    if (text.isEmpty() || text == ".")
        return false;
    int dots = 0;
    for (const QChar c : text) {
        if (c == '.')
            ++dots;
        else if (c < '0' || c > '9')
            return false;
    }
    bool ok = false;
    const double seconds = text.toDouble(&ok);
    if (!ok || dots > 1 || !std::isfinite(seconds) || seconds < 0 || seconds > KMaxSeconds)
        return false;
    const qint64 rounded = static_cast<qint64>(std::llround(seconds * 1000.0));
    ms = seconds > 0 && rounded == 0 ? 1 : rounded;
    return true;
}

QString SecondsText(qint64 ms)
{
    QString text = QString::number(static_cast<double>(ms) / 1000.0, 'f', 3);
    // Trailing zeros go, but one decimal stays: "2.0", "0.25".
    while (text.endsWith('0') && text.indexOf('.') < text.size() - 2)
        text.chop(1);
    return text;
}

ParseResult ParseOptions(const QStringList& args)
{
    Parser parser(args);
    return parser.Run();
}

QString HelpText()
{
    return QString(
        "Usage: velafetch [options] URL...\n"
        "       velafetch --tcp HOST:PORT\n"
        "       velafetch --upload-resumable URL-HOST KEY FILE\n"
        "       velafetch --pick-ap NAME...\n"
        "       velafetch --demo\n"
        "\n"
        "Fetches each URL through one pool of HTTP engines and writes the bodies\n"
        "to standard output or to files.\n"
        "\n"
        "Fetch options:\n"
        "  -o, --output FILE      write the body of the next URL to FILE (once per URL)\n"
        "  -O, --remote-name      name the files of the other URLs from the URL\n"
        "                         (host and path, '/' and ':' made '_')\n"
        "  -C, --continue         resume: ask for the rest of an existing file and append\n"
        "  -d, --data DATA        POST DATA as a form (application/x-www-form-urlencoded)\n"
        "  -F, --form NAME=@PATH  multipart upload of the file PATH as form field NAME\n"
        "      --fields 'K=V&K2=V2'  plain form fields sent with -F\n"
        "      --engines N        engines in the pool, 1 to 64 (default 4)\n"
        "      --id ID            request id: page, prefetch, css, image or a number;\n"
        "                         page and prefetch redirects are reported, not followed\n"
        "      --cookies DIR      load cookies from DIR, send and store them, save at exit\n"
        "      --dns-cache DIR    keep the DNS cache file in DIR\n"
        "      --gateway URL      DNS gateway asked when a host name does not resolve\n"
        "      --cacert FILE      also trust the CA certificates in FILE (PEM) for https\n"
        "  -x, --proxy URL        send every request through the HTTP proxy\n"
        "                         http://[USER:PASSWORD@]HOST[:PORT] (https through\n"
        "                         CONNECT); \"\" for none. Without it the environment's\n"
        "                         http_proxy, https_proxy/HTTPS_PROXY are used\n"
        "      --noproxy LIST     hosts reached directly: comma-separated names (with\n"
        "                         their subdomains), addresses, NAME:PORT, or *;\n"
        "                         over the environment's no_proxy/NO_PROXY\n"
        "      --max-time SECONDS  give up a transfer that has not ended after SECONDS\n"
        "                         (fractions allowed; 0: no limit)\n"
        "      --connect-timeout SECONDS  give up a transfer that is not connected\n"
        "                         after SECONDS (each connection of a redirect anew)\n"
        "  -v, --verbose          print every report of the pool on stderr\n"
        "\n"
        "Other modes:\n"
        "      --tcp HOST:PORT    raw connection: stdin lines are sent, received bytes\n"
        "                         go to stdout, the peer's close ends the program\n"
        "      --upload-resumable URL-HOST KEY FILE\n"
        "                         resumable block upload of FILE to URL-HOST with KEY\n"
        "      --block-size N     block size of the resumable upload (default 10240)\n"
        "      --pick-ap NAME...  show the access point picker, print and save the choice\n"
        "      --iap-file FILE    where --pick-ap saves the chosen name\n"
        "      --demo             serve a sample site on 127.0.0.1 and load it like a browser\n"
        "  -h, --help             show this text\n"
        "\n"
        "A progress bar is shown on stderr for transfers over 1 MiB when stderr is a\n"
        "terminal. Exit status: 0 when every transfer completed, 1 when one failed\n"
        "(one line per failure on stderr), 2 for a bad command line. A transfer that\n"
        "fails or runs out of time leaves no partial file behind, except with -C, which\n"
        "keeps what arrived so that the next run resumes from it.\n");
}

}  // namespace velafetch
