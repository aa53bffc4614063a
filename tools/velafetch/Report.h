#ifndef VELAFETCH_REPORT_H
#define VELAFETCH_REPORT_H

// Text for people: what the pool's event numbers mean, one line per report
// for -v, the one-line reason of a failed transfer, sizes, rates and times.

#include <QByteArray>
#include <QString>

class CHttpResponseHead;

namespace velafetch {

struct Transfer;

// "lookup started", "connected"... for the net events and net errors the
// engine passes up; "unknown event" for numbers it does not use.
[[nodiscard]] QString EventMeaning(int event);

// "page", "prefetch", "css", "image" or the number in hex.
[[nodiscard]] QString IdName(int id);

// "status 200, length 1024 (by length), type text/html, encoding gzip, ..."
[[nodiscard]] QString DescribeHead(const CHttpResponseHead& head);

// "text/html", "image/(code 195)"... from the head's type codes.
[[nodiscard]] QString ContentTypeName(int mainId, int subId);

// The reason a finished transfer failed, ending with the library's code in
// brackets ("connection refused [net error 34]", "HTTP 404 [HTTP error
// 404]"); empty when it did not fail.
[[nodiscard]] QString FailureText(const Transfer& transfer);

// 1023 B, 1.5 KiB, 20.0 MiB, 1.00 GiB.
[[nodiscard]] QString SizeText(qint64 bytes);
// Bytes per second as a size per second.
[[nodiscard]] QString RateText(double bytesPerSecond);
// m:ss or h:mm:ss.
[[nodiscard]] QString DurationText(qint64 seconds);

}  // namespace velafetch

#endif
