#include "Report.h"

#include "HttpJob.h"

#include "src/HttpData.h"
#include "src/MLHttpEngine.h"

namespace velafetch {

namespace {

const qint64 KKiB = 1024;
const qint64 KMiB = 1024 * KKiB;
const qint64 KGiB = 1024 * KMiB;

QString MainTypeName(int mainId)
{
    switch (mainId) {
    case CHttpData::KTypeText:
        return "text";
    case CHttpData::KTypeApplication:
        return "application";
    case CHttpData::KTypeAudio:
        return "audio";
    case CHttpData::KTypeVideo:
        return "video";
    case CHttpData::KTypeImage:
        return "image";
    default:
        return QString();
    }
}

QString SubTypeName(int subId)
{
    switch (subId) {
    case CHttpData::KSubTextWml:
        return "vnd.wap.wml";
    case CHttpData::KSubTextJadDescriptor:
        return "vnd.sun.j2me.app-descriptor";
    case CHttpData::KSubTextHtml:
        return "html";
    case CHttpData::KSubTextCss:
        return "css";
    case CHttpData::KSubApplicationWapXhtml:
        return "vnd.wap.xhtml+xml";
    case CHttpData::KSubApplicationXhtml:
        return "xhtml+xml";
    case CHttpData::KSubAudioMp3:
        return "mp3";
    case CHttpData::KSubAudioMidi:
        return "midi";
    case CHttpData::KSubAudioAmr:
        return "amr";
    case CHttpData::KSubAudioMpeg:
        return "mpeg";
    case CHttpData::KSubAudioRm:
        return "x-pn-realaudio";
    case CHttpData::KSubAudioWav:
        return "wav";
    case CHttpData::KSubVideo3gpp:
        return "3gpp";
    case CHttpData::KSubVideoMpeg:
        return "mpeg";
    case CHttpData::KSubVideoJpeg:
        return "jpeg";
    default:
        return QString();
    }
}

QString FramingName(int bodyType)
{
    switch (bodyType) {
    case CHttpResponseHead::KBodyByLength:
        return "by length";
    case CHttpResponseHead::KBodyChunked:
        return "chunked";
    case CHttpResponseHead::KBodyUntilClose:
        return "until close";
    default:
        return QString("framing %1").arg(bodyType);
    }
}

QString EncodingName(int encoding)
{
    switch (encoding) {
    case CHttpResponseHead::KContentEncodingGzip:
        return "gzip";
    case CHttpResponseHead::KContentEncodingDeflate:
        return "deflate";
    default:
        return "none";
    }
}

QString NetErrorText(const Transfer& t)
{
    const bool secure = t.currentUrl.startsWith("https:");
    switch (t.code) {
    case velanet::KEventHostNotResolvable:
        return "host not found";
    case velanet::KEventRecvBufferFull:
        return "response head too large";
    case velanet::KErrorTooManyRedirects:
        return QString("too many redirects (%1)").arg(CMLHttpEngine::GetMaxRedirects());
    case velanet::KErrorRedirectNotStartable:
        return "redirect to a URL that cannot be fetched";
    case velanet::KErrorLengthUnrepresentable:
        return "Content-Length is not a length velanet can hold";
    case velanet::KEventSocketError:
        if (t.headReceived)
            return "body ended early";
        if (t.connects > 0)
            return "connection closed before the response";
        // The lookup failed and the DNS gateway could not be reached either.
        if (t.sawLookup && !t.sawResolved)
            return "host not found";
        return secure ? "connection refused or TLS handshake failed" : "connection refused";
    default:
        return "network error";
    }
}

}  // namespace

QString EventMeaning(int event)
{
    switch (event) {
    case velanet::KEventOwnerProgressA:
    case velanet::KEventOwnerProgressB:
        return "progress";
    case velanet::KEventOwnerFailureA:
    case velanet::KEventOwnerFailureB:
    case velanet::KEventOwnerFailureC:
        return "failure";
    case velanet::KEventConnected:
        return "connected, request sent";
    case velanet::KEventSocketError:
        return "socket error (refused, reset, closed or TLS failure)";
    case velanet::KEventPassedThroughA:
        return "network error";
    case velanet::KEventHostNotResolvable:
        return "host not resolvable";
    case velanet::KEventResolved:
        return "host resolved";
    case velanet::KEventLookupStarted:
        return "lookup started";
    case velanet::KEventDecompressFailed:
        return "gzip body does not decode";
    case velanet::KEventPassedThroughB:
    case velanet::KEventPassedThroughC:
        return "network error";
    case velanet::KEventRecvBufferFull:
        return "response head too large";
    case velanet::KErrorTooManyRedirects:
        return "too many redirects";
    case velanet::KErrorRedirectNotStartable:
        return "redirect cannot be followed";
    case velanet::KErrorLengthUnrepresentable:
        return "Content-Length not representable";
    default:
        return "unknown event";
    }
}

QString IdName(int id)
{
    switch (id) {
    case CMLHttpPool::KIdPage:
        return "page";
    case CMLHttpPool::KIdPrefetch:
        return "prefetch";
    case CMLHttpPool::KIdCss:
        return "css";
    case CMLHttpPool::KIdImage:
        return "image";
    default:
        return QString("id %1").arg(static_cast<unsigned int>(id));
    }
}

QString ContentTypeName(int mainId, int subId)
{
    if (mainId == CHttpData::KTypeNone)
        return "none";
    QString main = MainTypeName(mainId);
    if (main.isEmpty())
        return "other";
    QString sub = SubTypeName(subId);
    if (sub.isEmpty())
        sub = "other";
    return main + "/" + sub;
}

QString DescribeHead(const CHttpResponseHead& head)
{
    QString text = QString("status %1").arg(head.m_nStatusCode);
    if (head.m_nBodyType == CHttpResponseHead::KBodyByLength)
        text += QString(", length %1").arg(head.m_nContentLength);
    else
        text += ", length unknown";
    text += ", framing " + FramingName(head.m_nBodyType);
    text += ", type " + ContentTypeName(head.m_nContentTypeID, head.m_nContentSubTypeID);
    text += ", encoding " + EncodingName(head.m_nContentEncoding);
    if (head.m_nRangeStart >= 0)
        text += QString(", range from %1 of %2").arg(head.m_nRangeStart).arg(head.m_nRangeTotal);
    if (!head.m_strLocation.IsEmpty())
        text += ", location " + QString::fromUtf8(head.m_strLocation.GetDataPtr(), head.m_strLocation.GetLength());
    if (head.m_listCookies.GetCount() > 0)
        text += QString(", %1 cookie(s)").arg(head.m_listCookies.GetCount());
    return text;
}

QString FailureText(const Transfer& t)
{
    switch (t.outcome) {
    case Outcome::Pending:
    case Outcome::Completed:
    case Outcome::Redirected:
        return QString();
    case Outcome::HttpError:
        return QString("HTTP %1 [HTTP error %1]").arg(t.code);
    case Outcome::NetError:
        return QString("%1 [net error %2]").arg(NetErrorText(t)).arg(t.code);
    case Outcome::Corrupt:
        return QString("gzip body does not decode [net event %1]").arg(t.code);
    case Outcome::Local:
        return t.localReason;
    }
    return QString();
}

QString SizeText(qint64 bytes)
{
    if (bytes < KKiB)
        return QString("%1 B").arg(bytes);
    if (bytes < KMiB)
        return QString("%1 KiB").arg(static_cast<double>(bytes) / KKiB, 0, 'f', 1);
    if (bytes < KGiB)
        return QString("%1 MiB").arg(static_cast<double>(bytes) / KMiB, 0, 'f', 1);
    return QString("%1 GiB").arg(static_cast<double>(bytes) / KGiB, 0, 'f', 2);
}

QString RateText(double bytesPerSecond)
{
    if (bytesPerSecond < 0)
        bytesPerSecond = 0;
    return SizeText(static_cast<qint64>(bytesPerSecond)) + "/s";
}

QString DurationText(qint64 seconds)
{
    if (seconds < 0)
        seconds = 0;
    const qint64 h = seconds / 3600;
    const qint64 m = (seconds / 60) % 60;
    const qint64 s = seconds % 60;
    if (h > 0)
        return QString("%1:%2:%3").arg(h).arg(m, 2, 10, QChar('0')).arg(s, 2, 10, QChar('0'));
    return QString("%1:%2").arg(m).arg(s, 2, 10, QChar('0'));
}

}  // namespace velafetch
