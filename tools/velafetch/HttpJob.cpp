#include "HttpJob.h"

#include "Options.h"
#include "Report.h"

#include "src/CookieHolder.h"
#include "src/MLHttpEngine.h"

#include <QMetaObject>

namespace velafetch {

namespace {

// Queued transfers blocked by busy engines look again after this long.
const int KRetryMs = 5;
// Active transfers are checked for a silently lost request this often; a
// transfer seen lost on two checks in a row is failed.
const int KWatchMs = 100;
// Time limits are checked this often: the precision of --max-time.
const int KDeadlineCheckMs = 10;
// A gzip body is reported decoded: the head's length is the encoded one.
const int KEventDecompressFailed = velanet::KEventDecompressFailed;
const int KEventConnected = velanet::KEventConnected;
const int KEventLookupStarted = velanet::KEventLookupStarted;
const int KEventResolved = velanet::KEventResolved;

bool RedirectsReportedOnly(int id)
{
    return id == CMLHttpPool::KIdPage || id == CMLHttpPool::KIdPrefetch;
}

CQSString Narrow(const QByteArray& bytes)
{
    return CQSString(bytes.constData(), bytes.size());
}

}  // namespace

FetchSession::FetchSession(int engines, CIAPConnectEngine* iap, TransferObserver* observer)
    : m_pool(CMLHttpPool::NewL(this, iap, engines)), m_observer(observer)
{
    m_retryTimer.setSingleShot(true);
    m_retryTimer.setInterval(KRetryMs);
    connect(&m_retryTimer, &QTimer::timeout, this, &FetchSession::Pump);
    m_watchTimer.setInterval(KWatchMs);
    connect(&m_watchTimer, &QTimer::timeout, this, &FetchSession::Watch);
    m_deadlineTimer.setInterval(KDeadlineCheckMs);
    connect(&m_deadlineTimer, &QTimer::timeout, this, &FetchSession::CheckDeadlines);
}

void FetchSession::SetTimeLimits(qint64 maxTimeMs, qint64 connectTimeoutMs)
{
    m_maxTimeMs = maxTimeMs > 0 ? maxTimeMs : 0;
    m_connectTimeoutMs = connectTimeoutMs > 0 ? connectTimeoutMs : 0;
}

FetchSession::~FetchSession()
{
    // The engines report to this object: they go first.
    m_pool.reset();
}

void FetchSession::EnableCookies(QCookieHolder* holder)
{
    m_cookies = holder;
    m_pool->EnableCookie(holder);
}

int FetchSession::Add(const TransferOrder& order)
{
    auto transfer = std::make_unique<Transfer>();
    transfer->index = Count();
    transfer->order = order;
    transfer->currentUrl = order.url;
    m_transfers.push_back(std::move(transfer));
    m_allDoneReported = false;
    return Count() - 1;
}

void FetchSession::Start()
{
    m_watchTimer.start();
    if (m_maxTimeMs > 0 || m_connectTimeoutMs > 0)
        m_deadlineTimer.start();
    SchedulePump();
}

bool FetchSession::AllDone() const
{
    for (const auto& t : m_transfers) {
        if (t->state != Transfer::State::Done)
            return false;
    }
    return true;
}

Transfer* FetchSession::ActiveById(int id)
{
    for (auto& t : m_transfers) {
        if (t->state == Transfer::State::Active && t->order.id == id)
            return t.get();
    }
    return nullptr;
}

bool FetchSession::IdBusy(int id) const
{
    for (int i = 0; i < m_pool->GetEngineCount(); ++i) {
        const CMLHttpEngine* engine = m_pool->GetEngine(i);
        if (engine && !engine->IsIdle() && engine->GetRequestID() == id)
            return true;
    }
    return false;
}

bool FetchSession::Startable(const Transfer& transfer) const
{
    if (transfer.order.after >= 0 &&
        m_transfers.at(static_cast<size_t>(transfer.order.after))->state != Transfer::State::Done)
        return false;
    for (const auto& t : m_transfers) {
        if (t->state == Transfer::State::Active && t->order.id == transfer.order.id)
            return false;
    }
    return !IdBusy(transfer.order.id);
}

FetchSession::Submit FetchSession::TrySubmit(Transfer& transfer)
{
    if (!m_pool->FindIdeEngine())
        return Submit::NoEngine;
    const TransferOrder& order = transfer.order;
    const CQSString url = Narrow(order.url);
    // Active before the call: a report may come from inside it.
    transfer.state = Transfer::State::Active;
    transfer.clock.start();
    transfer.exchangeClock.start();
    int started = CMLHttpPool::KRefused;
    switch (order.kind) {
    case TransferOrder::Kind::Get:
        started = order.resumeOffset >= 0 ? m_pool->DoGetPartial64(url, order.id, nullptr, order.resumeOffset)
                                         : m_pool->DoGet(url, order.id, nullptr);
        break;
    case TransferOrder::Kind::Post: {
        QByteArray body = order.body;
        started = m_pool->DoPost(url, order.id, nullptr, reinterpret_cast<unsigned char*>(body.data()), body.size());
        break;
    }
    case TransferOrder::Kind::PostFile: {
        QByteArray fields = order.body;
        started = m_pool->DoPostFile(url, order.id, nullptr, reinterpret_cast<unsigned char*>(fields.data()),
                                     fields.size(), CQWString(order.filePath), CQWString(order.fieldName));
        break;
    }
    }
    if (started == CMLHttpPool::KStarted || transfer.state == Transfer::State::Done)
        return Submit::Started;
    transfer.state = Transfer::State::Queued;
    return Submit::Refused;
}

void FetchSession::SchedulePump()
{
    if (m_pumpPending)
        return;
    m_pumpPending = true;
    QMetaObject::invokeMethod(this, &FetchSession::Pump, Qt::QueuedConnection);
}

void FetchSession::Pump()
{
    m_pumpPending = false;
    // Engines still busy with the id of a transfer that has ended (a gzip
    // body waiting for the server's close) are let go.
    for (int i = 0; i < m_pool->GetEngineCount(); ++i) {
        const CMLHttpEngine* engine = m_pool->GetEngine(i);
        if (engine && !engine->IsIdle() && !ActiveById(engine->GetRequestID()))
            CancelId(engine->GetRequestID());
    }
    bool waiting = false;
    for (auto& t : m_transfers) {
        if (t->state != Transfer::State::Queued)
            continue;
        if (!Startable(*t)) {
            waiting = true;
            continue;
        }
        const Submit result = TrySubmit(*t);
        if (result == Submit::NoEngine) {
            waiting = true;
            break;
        }
        if (result == Submit::Refused)
            FailTransfer(*t, "the request was refused (is the URL well formed?)");
    }
    if (waiting)
        m_retryTimer.start();
    if (AllDone() && !m_allDoneReported) {
        m_allDoneReported = true;
        m_watchTimer.stop();
        m_deadlineTimer.stop();
        m_observer->OnAllDone();
    }
}

void FetchSession::CancelId(int id)
{
    switch (id) {
    case CMLHttpPool::KIdPage:
        m_pool->CancelPageRequest();
        break;
    case CMLHttpPool::KIdPrefetch:
        m_pool->CancelPrefechRequest();
        break;
    case CMLHttpPool::KIdCss:
        m_pool->CancelCssRequest();
        break;
    case CMLHttpPool::KIdImage:
        m_pool->CancelImgRequest();
        break;
    default:
        m_pool->CancelDownLoadRequest(id);
        break;
    }
}

void FetchSession::Finish(Transfer& transfer, Outcome outcome, int code)
{
    if (transfer.state == Transfer::State::Done)
        return;
    transfer.state = Transfer::State::Done;
    transfer.outcome = outcome;
    transfer.code = code;
    transfer.elapsedMs = transfer.clock.isValid() ? transfer.clock.elapsed() : 0;
    m_observer->OnTransferEnd(transfer);
    SchedulePump();
}

void FetchSession::FailTransfer(Transfer& transfer, const QString& reason)
{
    if (transfer.state == Transfer::State::Done)
        return;
    const bool active = transfer.state == Transfer::State::Active;
    transfer.localReason = reason;
    Finish(transfer, Outcome::Local, 0);
    if (active)
        CancelId(transfer.order.id);
}

void FetchSession::Watch()
{
    std::vector<int> lost;
    for (auto& t : m_transfers) {
        if (t->state == Transfer::State::Active && !IdBusy(t->order.id))
            lost.push_back(t->index);
    }
    for (const int index : lost) {
        for (const int suspect : m_suspects) {
            if (suspect == index)
                FailTransfer(At(index), "the request ended without a report");
        }
    }
    m_suspects = lost;
}

void FetchSession::CheckDeadlines()
{
    // Indexes first: failing a transfer reports to the owner, who may add.
    std::vector<std::pair<int, QString>> late;
    for (auto& t : m_transfers) {
        if (t->state != Transfer::State::Active)
            continue;
        if (m_maxTimeMs > 0 && t->clock.isValid() && t->clock.elapsed() >= m_maxTimeMs)
            late.emplace_back(t->index, QString("timed out after %1 s [--max-time]").arg(SecondsText(m_maxTimeMs)));
        else if (m_connectTimeoutMs > 0 && t->connects == 0 && t->exchangeClock.isValid() &&
                 t->exchangeClock.elapsed() >= m_connectTimeoutMs)
            late.emplace_back(t->index,
                              QString("timed out after %1 s [--connect-timeout]").arg(SecondsText(m_connectTimeoutMs)));
    }
    for (const auto& entry : late)
        FailTransfer(At(entry.first), entry.second);
}

void FetchSession::Log(int id, const QString& text)
{
    if (m_log)
        m_log(QString("[%1] %2").arg(IdName(id), text));
}

// ------------------------------------------------------------ pool reports

int FetchSession::HttpErrorOccured(int id, int status)
{
    Log(id, QString("http error %1").arg(status));
    if (Transfer* t = ActiveById(id)) {
        t->status = status;
        Finish(*t, Outcome::HttpError, status);
    }
    return 1;
}

int FetchSession::HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData&)
{
    Log(id, "header: " + DescribeHead(head));
    Transfer* t = ActiveById(id);
    if (!t)
        return 1;
    t->headReceived = true;
    t->status = head.m_nStatusCode;
    t->bodyType = head.m_nBodyType;
    t->contentEncoding = head.m_nContentEncoding;
    t->rangeStart = head.m_nRangeStart64;
    t->contentLength = -1;
    if (head.m_nBodyType == CHttpResponseHead::KBodyByLength &&
        head.m_nContentEncoding == CHttpResponseHead::KContentEncodingNone)
        t->contentLength = head.m_nContentLength64;
    if (m_cookies) {
        const CQSString url = Narrow(t->currentUrl);
        auto pos = head.m_listCookies.GetHeadPosition();
        while (pos) {
            const CQSString* line = head.m_listCookies.GetNext(pos);
            if (line)
                (void)m_cookies->ParseCookie(url, *line);
        }
    }
    m_observer->OnTransferHead(*t, head);
    return 1;
}

int FetchSession::HttpResponseReceived(int id, unsigned char* data, int len, int n)
{
    if (m_log)
        Log(id, QString("data %1 bytes (n=%2)").arg(len).arg(n));
    Transfer* t = ActiveById(id);
    if (!t || !data || len <= 0)
        return 1;
    t->bytes += len;
    m_observer->OnTransferData(*t, data, len);
    return 1;
}

int FetchSession::HttpResponseComplete(int id, CQWString&)
{
    Transfer* t = ActiveById(id);
    Log(id, t ? QString("complete, %1 body bytes").arg(t->bytes) : QString("complete"));
    if (t)
        Finish(*t, Outcome::Completed, 0);
    return 1;
}

int FetchSession::HttpEventNotify(int id, int event)
{
    Log(id, QString("event %1 %2").arg(event).arg(EventMeaning(event)));
    Transfer* t = ActiveById(id);
    if (!t)
        return 1;
    t->events.push_back(event);
    if (event == KEventLookupStarted)
        t->sawLookup = true;
    else if (event == KEventResolved)
        t->sawResolved = true;
    else if (event == KEventConnected)
        ++t->connects;
    else if (event == KEventDecompressFailed)
        Finish(*t, Outcome::Corrupt, event);
    return 1;
}

int FetchSession::HttpErrorNotify(int id, int event)
{
    Log(id, QString("net error %1 %2").arg(event).arg(EventMeaning(event)));
    if (Transfer* t = ActiveById(id))
        Finish(*t, Outcome::NetError, event);
    return 1;
}

int FetchSession::HttpEngine_URLChange(int id, CQSString& location)
{
    const QByteArray where(location.GetDataPtr(), location.GetLength());
    Log(id, QString("url change -> %1").arg(where.isEmpty() ? QString("(empty)") : QString::fromUtf8(where)));
    Transfer* t = ActiveById(id);
    if (!t)
        return 1;
    t->location = where;
    ++t->redirects;
    if (RedirectsReportedOnly(id)) {
        Finish(*t, Outcome::Redirected, 0);
        return 1;
    }
    // The engine follows it on the same engine and id: a new exchange.
    t->currentUrl = where;
    t->headReceived = false;
    t->sawLookup = false;
    t->sawResolved = false;
    t->connects = 0;
    t->exchangeClock.start();
    return 1;
}

}  // namespace velafetch
