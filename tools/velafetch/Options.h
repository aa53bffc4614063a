#ifndef VELAFETCH_OPTIONS_H
#define VELAFETCH_OPTIONS_H

// Command line of velafetch: one mode (fetch URLs, raw TCP, resumable upload,
// access point picker, demo, help) and the settings of that mode.

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

namespace velafetch {

enum class Mode
{
    Fetch,
    Tcp,
    UploadResumable,
    PickAp,
    Demo,
    Help,
};

// How request ids are chosen for the fetched URLs.
enum class IdChoice
{
    PerUrl,  // each URL its own download id: 1, 2, 3...
    Fixed,   // every URL the one id given with --id
};

struct Options
{
    Mode mode = Mode::Fetch;

    // ---- fetch
    QStringList urls;
    int engines = 4;
    QStringList outputs;   // -o, given to the URLs in order
    bool remoteName = false;  // -O: URLs without -o are named from the URL
    bool resume = false;      // -C
    std::optional<QByteArray> postData;  // -d
    QString formField;     // -F name=@path: the name
    QString formFile;      //                the path
    QByteArray fields;     // --fields
    QString cookiesDir;
    QString dnsCacheDir;
    QByteArray gateway;
    QString caCertFile;
    // -x: the proxy of every URL ("" for none), over the environment's.
    std::optional<QString> proxy;
    // --noproxy: hosts reached directly, over the environment's list.
    std::optional<QString> noProxy;
    IdChoice idChoice = IdChoice::PerUrl;
    int fixedId = 0;
    bool verbose = false;
    // --max-time and --connect-timeout in milliseconds; 0: no limit.
    qint64 maxTimeMs = 0;
    qint64 connectTimeoutMs = 0;

    // ---- tcp
    QString tcpHost;
    quint16 tcpPort = 0;

    // ---- resumable upload
    QByteArray uploadHost;
    QByteArray uploadKey;
    QString uploadFile;
    int blockSize = 10240;

    // ---- access point picker
    QStringList apNames;
    QString iapFile;
};

// The parse result: options, or the one-line reason they were refused.
struct ParseResult
{
    Options options;
    QString error;  // empty when the command line is usable
};

// Parses the arguments after the program name.
[[nodiscard]] ParseResult ParseOptions(const QStringList& args);

// "page", "prefetch", "css", "image" or a number (decimal, or hex with 0x);
// false for anything else.
[[nodiscard]] bool ParseRequestId(const QString& text, int& id);

// A time limit in seconds, fractions allowed ("2", "0.5", "1.25"), from 0
// (no limit) to KMaxSeconds; ms gets it rounded to whole milliseconds (a
// positive limit is at least 1 ms). False for anything else.
[[nodiscard]] bool ParseSeconds(const QString& text, qint64& ms);
// A limit as the messages show it: "2.0", "0.25", "1.5".
[[nodiscard]] QString SecondsText(qint64 ms);
inline constexpr int KMaxSeconds = 1000000000;

// The text of --help.
[[nodiscard]] QString HelpText();

// Largest block of a resumable upload: the engine's 20480-byte block buffer
// also holds the block's request text (at most 1024 bytes).
inline constexpr int KMaxUploadBlock = 20480 - 1024;
inline constexpr int KMaxEngines = 64;

}  // namespace velafetch

#endif
