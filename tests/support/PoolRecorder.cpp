#include "support/PoolRecorder.h"

namespace velatest {

namespace {

// Answers of the reports.
constexpr int KGoOn = 1;
constexpr int KNothing = 0;

}  // namespace

int PoolRecorder::HttpErrorOccured(int id, int status)
{
    Add(id, "http-error " + std::to_string(status));
    Terminal(id);
    return KNothing;
}

int PoolRecorder::HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData&)
{
    Add(id, "header " + std::to_string(head.m_nStatusCode));
    PoolRequestRecord& r = m_records[id];
    r.status = head.m_nStatusCode;
    r.contentLength = head.m_nContentLength;
    r.contentEncoding = head.m_nContentEncoding;
    return m_onHeader ? m_onHeader(id, head) : KGoOn;
}

int PoolRecorder::HttpResponseReceived(int id, unsigned char* data, int len, int n)
{
    PoolRequestRecord& r = m_records[id];
    if (r.trace.empty() || r.trace.back() != "data")
        Add(id, "data");
    if (m_bKeepBodies) {
        r.body.append(reinterpret_cast<const char*>(data), len);
        r.pieceLengths.push_back(len);
        r.counts.push_back(n);
    }
    if (m_onData)
        m_onData(id);
    return KGoOn;
}

int PoolRecorder::HttpResponseComplete(int id, CQWString& recvFile)
{
    Add(id, "complete");
    m_records[id].completedPath = recvFile.ToQString();
    Terminal(id);
    return KNothing;
}

int PoolRecorder::HttpEventNotify(int id, int event)
{
    Add(id, "event " + std::to_string(event));
    if (event == KEventDecompressFailed)
        Terminal(id);
    if (m_onEvent)
        m_onEvent(id, event);
    return KNothing;
}

int PoolRecorder::HttpErrorNotify(int id, int event)
{
    Add(id, "net-error " + std::to_string(event));
    Terminal(id);
    return KNothing;
}

int PoolRecorder::HttpEngine_URLChange(int id, CQSString& location)
{
    Add(id, "url-change " + std::string(location.GetDataPtr(), static_cast<size_t>(location.GetLength())));
    return KNothing;
}

bool PoolRecorder::Done(int id) const
{
    const auto it = m_records.find(id);
    return it != m_records.end() && it->second.terminalReports > 0;
}

void PoolRecorder::Add(int id, const std::string& what)
{
    m_records[id].trace.push_back(what);
    if (m_bKeepLog)
        m_all.push_back(std::to_string(id) + ": " + what);
}

void PoolRecorder::Terminal(int id)
{
    ++m_records[id].terminalReports;
    ++m_nTerminalReports;
    if (m_onTerminal)
        m_onTerminal(id);
}

}  // namespace velatest
