#ifndef VELANET_POOLRECORDER_H
#define VELANET_POOLRECORDER_H

// A recording MHttpPoolNotifier for tests that drive CMLHttpPool: every
// report is kept per request id as a trace of short texts, in order.
//
//   "event 32"        HttpEventNotify (progress events and event 48)
//   "header 200"      HttpHeaderReceived with the head's status
//   "data"            one or more HttpResponseReceived in a row (bytes kept apart)
//   "complete"        HttpResponseComplete
//   "http-error 404"  HttpErrorOccured
//   "net-error 34"    HttpErrorNotify
//   "url-change L"    HttpEngine_URLChange with its location L
//
// Terminal reports, the ones that end a request, are counted per id:
// completion, HTTP error, net error, and net event 48 (the body could not
// be decompressed). The head and data reports answer 1 (go on), the others
// 0, unless the test installs its own answers.

#include "src/MLHttpPool.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace velatest {

// What one request id heard.
struct PoolRequestRecord
{
    std::vector<std::string> trace;
    QByteArray body;                // every data report's bytes, in order
    std::vector<int> pieceLengths;  // length of each data report
    std::vector<int> counts;        // n of each data report
    int status = 0;
    int contentLength = 0;
    int contentEncoding = 0;
    QString completedPath;
    int terminalReports = 0;
};

class PoolRecorder : public MHttpPoolNotifier
{
public:
    // Net event that ends a request: the body could not be decompressed.
    static constexpr int KEventDecompressFailed = 48;

    int HttpErrorOccured(int id, int status) override;
    int HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData& data) override;
    int HttpResponseReceived(int id, unsigned char* data, int len, int n) override;
    int HttpResponseComplete(int id, CQWString& recvFile) override;
    int HttpEventNotify(int id, int event) override;
    int HttpErrorNotify(int id, int event) override;
    int HttpEngine_URLChange(int id, CQSString& location) override;

    // The record of id (an empty one when id has not been heard of).
    PoolRequestRecord& Of(int id) { return m_records[id]; }
    bool Heard(int id) const { return m_records.count(id) != 0; }
    // At least one terminal report arrived for id.
    bool Done(int id) const;
    // Terminal reports over all ids, also of forgotten ones.
    int TerminalReports() const { return m_nTerminalReports; }
    // Every report of every id, in arrival order, as "id: text".
    const std::vector<std::string>& All() const { return m_all; }
    // Drops the record of id (long runs keep memory flat); later reports of
    // id start a new record.
    void Forget(int id) { m_records.erase(id); }

    // Off: data bytes and piece lists are not kept (the trace still is).
    bool m_bKeepBodies = true;
    // Off: nothing goes to All().
    bool m_bKeepLog = true;
    // Called after a terminal report has been recorded (the report that
    // ended the request is the last entry of the trace). A request may be
    // started from here, as from any report.
    std::function<void(int id)> m_onTerminal;
    // Called after a net event has been recorded.
    std::function<void(int id, int event)> m_onEvent;
    // Called after a data report has been recorded; the request may be
    // cancelled from here.
    std::function<void(int id)> m_onData;
    // Answer to a head (default 1: go on).
    std::function<int(int id, CHttpResponseHead& head)> m_onHeader;

private:
    void Add(int id, const std::string& what);
    void Terminal(int id);

    std::map<int, PoolRequestRecord> m_records;
    std::vector<std::string> m_all;
    int m_nTerminalReports = 0;
};

}  // namespace velatest

#endif
