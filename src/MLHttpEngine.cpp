// CMLHttpEngine: one request, from the owner's call to its one terminal
// report. Three variables say where an engine is, and this is all of them.
//
// Request state m_enCurHES (written only by MoveTo):
//
//                ConnectServer            event 36, gateway attempt left
//   HES_Idle -----------------> HES_HttpRequest ----------------------> HES_DNSRequest
//      ^  ^                      |   ^                                     |   |
//      |  |  event 36, none left |   |  gateway reply complete:            |   |
//      |  +--(net error 36)------+   +--request retried (ConnectServer)----+   |
//      |  +--body ended by the close or the last chunk (complete)              |
//      +----event 36 again, or gateway status not 2xx (net error 36)-----------+
//
// Response phase m_enPhase, with the body mode m_enHttpRecvDataMode:
//
//   HRP_Head  collect the head, judge the status:
//     |         3xx: URL change, then follow | other non-2xx: HTTP error
//     |         (each ends the response with Reset)
//     | 2xx: choose the body mode, report the head
//     v
//   HRP_Body  switch (body mode):  HRDM_Length  Content-Length reached  -> Reset, complete
//     |                            HRDM_Chunk   zero-size chunk         -> Reset, complete
//     |                            HRDM_Stream  connection closed       -> Reset, complete
//     | gzip stream ended (complete, no Reset: kept on purpose)
//     v
//   HRP_Done  reads nothing until the next Reset
//
// Every Reset (start, failure, completion, cancel) returns to HRP_Head and
// HRDM_Length and bumps m_nGeneration. Reports come last: an observer may
// start or cancel a request from inside any report, and a reader that sees
// the generation change after a report leaves the engine alone.

#include "src/MLHttpEngine.h"

#include "BaseClass/src/QtAssert.h"
#include "src/DNSCache.h"
#include "src/internal/DnsGatewayReply_p.h"
#include "src/internal/LocationResolve_p.h"
#include "src/internal/ProxyTunnel_p.h"

#include <algorithm>
#include <climits>
#include <cstring>

using velanet::KKindGet;
using velanet::KKindNone;
using velanet::KKindPost;
using velanet::KKindPostFile;
using velanet::KKindPostOLFile;

namespace {

const char KAssertFile[] = "src/MLHttpEngine";

// Filter state before the first piece of a compressed body.
constexpr int KFilterNotStarted = 0;

// No resume offset: the whole resource.
constexpr int KWholeResource = CQRequestHeaderUnit::KNoOffset;

// The multipart flag is never set by this engine.
constexpr int KNoMultipart = 0;
// The request target: the path for an origin server, the whole URL for a
// proxy.
constexpr int KOriginTarget = 0;
constexpr int KAbsoluteTarget = 1;
// The gateway request asks for no encoding.
constexpr int KGatewayEncodingMode = 0;
// Gateway lookups one request may make.
constexpr int KGatewayAttemptsPerRequest = 1;
// CollectHead: the head is not complete yet, wait for more bytes.
constexpr int KHeadIncomplete = 2;
// ReadBody: where the bytes are.
constexpr bool KInRecvBuffer = true;
constexpr bool KGivenBytes = false;

int& MaxRedirects()
{
    static int count = CMLHttpEngine::KDefaultMaxRedirects;
    return count;
}

CQSString& GatewayBaseURL()
{
    static CQSString url(CMLHttpEngine::KDefaultDNSGatewayURL);
    return url;
}

// Body bytes are counted in 64 bits; the count stops at LLONG_MAX
// instead of wrapping (no body comes near it).
long long SaturatingAdd(long long a, int b)
{
    if (b > 0 && a > LLONG_MAX - b)
        return LLONG_MAX;
    return b > 0 ? a + b : a;
}

// The resumable upload's server protocol counts in 32 bits.
constexpr long long KMaxOLFileLength = INT_MAX;
// A multipart upload announces any length.
constexpr long long KMaxPostFileLength = LLONG_MAX;

bool IsAccepted(int status)
{
    return status >= CMLHttpEngine::KFirstAccepted && status <= CMLHttpEngine::KLastAccepted;
}

// Interim (1xx) statuses.
constexpr int KFirstInterim = 100;
constexpr int KLastInterim = 199;
constexpr int KSwitchingProtocols = 101;

bool IsRedirect(int status)
{
    return status >= CMLHttpEngine::KFirstRedirect && status <= CMLHttpEngine::KLastRedirect;
}

}  // namespace

// ------------------------------------------------------------ construction

CMLHttpEngine* CMLHttpEngine::NewLC()
{
    CMLHttpEngine* self = new CMLHttpEngine();
    self->Construct();
    return self;
}

CMLHttpEngine* CMLHttpEngine::NewL()
{
    return NewLC();
}

CMLHttpEngine* CMLHttpEngine::NewL(MHttpNotifier* notifier)
{
    CMLHttpEngine* self = NewLC();
    self->m_pAdapter = new VelaHttpEngineAdapter(notifier);
    self->m_pObserver = self->m_pAdapter;
    return self;
}

CMLHttpEngine::CMLHttpEngine() : m_GzipUtil(FM_Gzip, FM_Gzip)
{
}

void CMLHttpEngine::Construct()
{
    delete m_pSocketEngine;
    m_pSocketEngine = CQHttpSocketEngine::NewL(this, velanet::KSliceSize, velanet::KSliceSize);
    QT_ALWAYS_ASSERT(m_pSocketEngine != NULL, KAssertFile);

    m_pRecvBuf = std::make_unique<CMLDataBuf>();
    (void)m_pRecvBuf->Create(velanet::KRecvBufferSize);  // no storage: every append fails (event 64)
    m_pDecompressBuf = std::make_unique<CMLDataBuf>();
    (void)m_pDecompressBuf->Create(velanet::KDecompressPieceSize);

    m_enPhase = HRP_Head;
    m_nRecvBytes = 0;
    m_nCurKind = KKindNone;
    m_strCurPostData.Empty();
    m_nDataCallCount = 0;
    m_enCurHES = HES_Idle;
    m_enHttpRecvDataMode = HRDM_Length;
}

CMLHttpEngine::~CMLHttpEngine()
{
    // Events raised while the socket engine goes away find no socket engine
    // and are ignored.
    CQHttpSocketEngine* socketEngine = m_pSocketEngine;
    m_pSocketEngine = nullptr;
    delete socketEngine;
    m_pRecvBuf.reset();
    m_pDecompressBuf.reset();
    delete m_pAdapter;
    m_pAdapter = nullptr;
    m_pObserver = nullptr;
    m_RecvFile.Close();
    m_GzipUtil.ResetFilter();
}

// ------------------------------------------------------------ requests

void CMLHttpEngine::SetRecvFile(const CQWString* recvFile)
{
    if (recvFile) {
        const CQWString path(*recvFile);
        if (m_strRecvFilePath.SetData(path.GetDataPtr(), path.GetLength()))
            m_bRecvToFile = true;
    } else {
        m_strRecvFilePath.Empty();
        m_bRecvToFile = false;
    }
}

void CMLHttpEngine::BeginRequest(int kind, enStartedBy startedBy)
{
    Reset(false);
    m_nRequestedKind = kind;
    m_nCurKind = kind;
    m_nGatewayAttemptsLeft = KGatewayAttemptsPerRequest;
    switch (startedBy) {
    case SB_Owner:
        m_nRedirectsFollowed = 0;
        break;
    case SB_Redirect:
        ++m_nRedirectsFollowed;
        break;
    }
}

int CMLHttpEngine::DoGet(const char* url, const CQWString* recvFile, int offset)
{
    return StartGet(url, recvFile, offset, SB_Owner);
}

int CMLHttpEngine::DoGet64(const char* url, const CQWString* recvFile, long long offset)
{
    return StartGet(url, recvFile, offset, SB_Owner);
}

int CMLHttpEngine::StartGet(const char* url, const CQWString* recvFile, long long offset, enStartedBy startedBy)
{
    if (!m_pSocketEngine)
        return KRefused;
    BeginRequest(KKindGet, startedBy);
    m_RequestHeaderUnit.FreeHeaderData();
    m_RequestHeaderUnit.SetOffset64(offset);
    m_RequestHeaderUnit.m_strData.Empty();
    SetRecvFile(recvFile);
    m_RequestData.SetURL(url);
    return ConnectServer(url);
}

int CMLHttpEngine::DoGet(const CQSString& url, const CQWString& recvFile)
{
    const CQSString text(url);
    return DoGet(text.GetDataPtr(), &recvFile, 0) != KRefused ? KDone : KRefused;
}

int CMLHttpEngine::DoPost(const char* url, const CQWString* recvFile, unsigned char* body, int len)
{
    if (!m_pSocketEngine)
        return KRefused;
    BeginRequest(KKindPost, SB_Owner);
    m_RequestHeaderUnit.FreeHeaderData();
    m_RequestHeaderUnit.SetOffset64(KWholeResource);
    m_RequestHeaderUnit.m_strData.Empty();
    (void)m_RequestHeaderUnit.m_strData.SetData(body, len);  // refused (null body, len < 0): stays empty
    SetRecvFile(recvFile);
    m_RequestData.SetURL(url);
    return ConnectServer(url);
}

int CMLHttpEngine::DoPost(const char* url, const CQWString& recvFile, unsigned char* body, int len)
{
    return DoPost(url, &recvFile, body, len);
}

int CMLHttpEngine::DoPostFile(const char* url, const CQWString* recvFile, unsigned char* data, int len,
                              const CQWString& filePath, const CQWString& fieldName)
{
    if (!m_pSocketEngine)
        return KRefused;
    BeginRequest(KKindPostFile, SB_Owner);
    m_PostFileHeaderUnit.Clear();
    (void)m_PostFileHeaderUnit.m_strData.SetData(data, len);
    m_PostFileHeaderUnit.m_strFilePath = filePath;
    m_PostFileHeaderUnit.m_strFieldName = fieldName;
    SetRecvFile(recvFile);
    m_RequestData.SetURL(url);
    return ConnectServer(url);
}

int CMLHttpEngine::DoPostOLFile(const char* host, char* key, int keyLen, const CQWString& filePath,
                                unsigned int blockSize)
{
    if (!m_pSocketEngine)
        return KRefused;
    // Every block must fit the socket engine's block buffer beside its
    // request text; an upload whose blocks would not is refused up front.
    const int hostLen = host ? static_cast<int>(std::min<size_t>(std::strlen(host), INT_MAX)) : 0;
    if (blockSize > static_cast<unsigned int>(INT_MAX) ||
        !CQHttpSocketEngine::OLBlockFits(key ? std::max(keyLen, 0) : 0, hostLen, static_cast<int>(blockSize)))
        return KRefused;
    BeginRequest(KKindPostOLFile, SB_Owner);
    m_OLFileHeaderUnit.Clear();
    m_OLFileHeaderUnit.m_nBlockSize = static_cast<int>(blockSize);
    m_OLFileHeaderUnit.m_strFilePath = filePath;
    (void)m_OLFileHeaderUnit.SetKey(key, keyLen);
    (void)m_OLFileHeaderUnit.m_strHost.SetData(host);
    m_bRecvToFile = false;
    // The upload goes to the host it names, so that the connection step
    // can reach it; the block requests carry the host as given.
    CQSString url;
    if (host) {
        (void)url.SetData("http://");
        (void)url.AppendData(host);
        (void)url.AppendChar('/');
    }
    m_RequestData.SetURL(url.GetDataPtr());
    return ConnectServer(url.GetDataPtr());
}

int CMLHttpEngine::ConnectServer(const char* /*url*/)
{
    if (!m_pSocketEngine)
        return KRefused;
    CHttpData* target = nullptr;
    switch (m_enCurHES) {
    case HES_Idle:
        MoveTo(HES_HttpRequest);
        target = &m_RequestData;
        break;
    case HES_HttpRequest:
        target = &m_RequestData;
        break;
    case HES_DNSRequest:
        target = &m_DNSRequestData;
        break;
    }
    if (!target) {
        // A state outside the table: no server at all.
        m_pSocketEngine->SetServerName(nullptr, 0);
        m_pSocketEngine->SetPort(0);
        m_pSocketEngine->SetSecure(false);
        return m_pSocketEngine->ConnectL();
    }
    SetServerFor(*target, target == &m_RequestData && m_nCurKind != KKindPostOLFile);
    return m_pSocketEngine->ConnectL();
}

void CMLHttpEngine::Reset(bool deleteFile)
{
    ++m_nGeneration;
    if (m_pSocketEngine)
        m_pSocketEngine->DisConnect();
    m_nRecvBytes = 0;
    m_enPhase = HRP_Head;
    if (m_pRecvBuf)
        m_pRecvBuf->Zero();
    m_RecvFile.Close();
    if (deleteFile && m_bRecvToFile)
        (void)CQFile::DeleteFile(m_strRecvFilePath);
    m_enHttpRecvDataMode = HRDM_Length;
    m_bRecvToFile = false;
    m_nDataCallCount = 0;
    m_ResponseHead.Reset();
    m_nFilterState = KFilterNotStarted;
    m_GzipUtil.ResetFilter();
    if (m_pDecompressBuf)
        m_pDecompressBuf->Zero();
}

void CMLHttpEngine::MoveTo(enHttpEngineState next)
{
    // Every move of the diagram but one is possible: the gateway is only
    // asked for the host of a request under way.
    QT_ALWAYS_ASSERT(!(m_enCurHES == HES_Idle && next == HES_DNSRequest), KAssertFile);
    m_enCurHES = next;
}

int CMLHttpEngine::CancelRequest()
{
    Reset(true);
    return KDone;
}

bool CMLHttpEngine::IsIdle() const
{
    return m_pSocketEngine && m_pSocketEngine->GetEngineStatus() == CQHttpSocketEngine::HSES_Idle;
}

int CMLHttpEngine::GetHttpSocketCurrentStatus() const
{
    if (!m_pSocketEngine)
        return KNoSocketEngine;
    return m_pSocketEngine->GetEngineStatus();
}

// ------------------------------------------------------------ configuration

void CMLHttpEngine::SetIap(CIAPConnectEngine* iap)
{
    if (m_pSocketEngine)
        m_pSocketEngine->SetIapEngine(iap);
}

void CMLHttpEngine::SetPriority(velanet::enRequestPriority /*priority*/)
{
}

void CMLHttpEngine::SetUserAgent(CQSString& userAgent, CQSString& vua, CQSString& extra)
{
    m_RequestData.SetUserAgent(userAgent, vua, extra);
}

void CMLHttpEngine::SetCookieHold(QCookieHolder* holder)
{
    m_RequestData.SetCookiePointer(holder);
}

void CMLHttpEngine::DisableCookie()
{
    m_RequestData.SetCookiePointer(nullptr);
}

int CMLHttpEngine::DoClearSendInfo()
{
    if (!m_pSocketEngine)
        return KRefused;
    m_pSocketEngine->DoClearSendInfo();
    return KDone;
}

void CMLHttpEngine::DoStopOLFileTimer()
{
    if (m_pSocketEngine)
        m_pSocketEngine->DoStopOLFileTimer();
}

void CMLHttpEngine::SetOLFileTimerObserver(CQTimerObserver* observer)
{
    if (m_pSocketEngine)
        m_pSocketEngine->SetOLFileTimerObserver(observer);
}

void CMLHttpEngine::ReportFlux(int /*length*/, int /*second*/)
{
}

void CMLHttpEngine::SetDNSGatewayURL(const char* url)
{
    if (url)
        (void)GatewayBaseURL().SetData(url);
}

const CQSString& CMLHttpEngine::GetDNSGatewayURL()
{
    return GatewayBaseURL();
}

void CMLHttpEngine::SetMaxRedirects(int count)
{
    MaxRedirects() = std::max(count, 0);
}

int CMLHttpEngine::GetMaxRedirects()
{
    return MaxRedirects();
}

// ------------------------------------------------------------ socket events

void CMLHttpEngine::OnSocketEngine_SocketEvent(int event, int /*param*/)
{
    using namespace velanet;
    if (!m_pSocketEngine)
        return;
    if (event < KEventFirstHandled || event > KEventLastHandled)
        return;
    switch (event) {
    case KEventOwnerProgressA:
    case KEventOwnerProgressB:
    case KEventResolved:
    case KEventLookupStarted:
        if (m_pObserver)
            m_pObserver->OnHttpEngine_NetEvent(m_nRequestID, event);
        return;
    case KEventOwnerFailureA:
    case KEventOwnerFailureB:
    case KEventOwnerFailureC:
    case KEventSocketError:
    case KEventPassedThroughA:
    case KEventDecompressFailed:
    case KEventPassedThroughB:
    case KEventPassedThroughC:
    case KEventRecvBufferFull:
        Reset(true);
        if (m_pObserver)
            m_pObserver->OnHttpEngine_NetError(m_nRequestID, event);
        return;
    case KEventConnected:
        OnConnected();
        return;
    case KEventHostNotResolvable:
        OnHostNotResolvable();
        return;
    default:
        // The rest of the handled range means nothing to the engine.
        return;
    }
}

void CMLHttpEngine::OnConnected()
{
    switch (m_nCurKind) {
    case KKindGet:
        SendMsg_Get();
        break;
    case KKindPost:
        SendMsg_Post();
        break;
    case KKindPostFile:
        SendMsg_PostFile();
        break;
    case KKindPostOLFile:
        SendMsg_PostOLFile();
        break;
    default:
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
        return;
    }
    if (m_pObserver)
        m_pObserver->OnHttpEngine_NetEvent(m_nRequestID, velanet::KEventConnected);
}

void CMLHttpEngine::OnHostNotResolvable()
{
    switch (m_enCurHES) {
    case HES_Idle:
        return;
    case HES_HttpRequest:
        // The gateway knows origin names; a proxy's name that does not
        // resolve ends the request.
        if (m_nGatewayAttemptsLeft > 0 && !m_ProxyRoute.viaProxy) {
            MoveTo(HES_DNSRequest);
            StartGetDNSThroughProxy();
            return;
        }
        // The retry after a gateway answer did not resolve either.
        [[fallthrough]];
    case HES_DNSRequest:
        Reset(false);
        MoveTo(HES_Idle);
        if (m_pObserver)
            m_pObserver->OnHttpEngine_NetError(m_nRequestID, velanet::KEventHostNotResolvable);
        return;
    }
    QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
}

// ------------------------------------------------------------ sending

void CMLHttpEngine::SendMsg_Get()
{
    if (!m_pSocketEngine)
        return;
    int len = 0;
    unsigned char* bytes = nullptr;
    switch (m_enCurHES) {
    case HES_Idle:
        return;
    case HES_HttpRequest:
        // The request id goes in as the encoding mode: only the current page
        // id asks for gzip.
        if (m_RequestHeaderUnit.GetOffset64() >= 0)
            bytes = m_RequestData.PartialGetMethodData64(len, m_nRequestID, AbsoluteTarget(),
                                                         m_RequestHeaderUnit.GetOffset64());
        else
            bytes = m_RequestData.GetMethodData(KKindGet, len, m_nRequestID,
                                                AbsoluteTarget() ? KAbsoluteTarget : KOriginTarget, KNoMultipart, 0,
                                                nullptr, false, 0);
        bytes = WithProxyCredentials(bytes, len);
        break;
    case HES_DNSRequest:
        bytes = m_DNSRequestData.GetMethodData(KKindGet, len, KGatewayEncodingMode, KOriginTarget, KNoMultipart, 0,
                                               nullptr, false, 0);
        break;
    }
    if (!bytes || len < 1) {
        delete[] bytes;
        return;
    }
    m_RequestHeaderUnit.SetHeaderData(bytes, len);
    if (m_pSocketEngine->DoSend(bytes, len, false) < 1)
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
    (void)OpenFile2Recv();
}

void CMLHttpEngine::SendMsg_Post()
{
    if (!m_pSocketEngine)
        return;
    CQSString& body = m_RequestHeaderUnit.m_strData;
    int len = 0;
    unsigned char* bytes = m_RequestData.GetMethodData(
        KKindPost, len, m_nRequestID, AbsoluteTarget() ? KAbsoluteTarget : KOriginTarget, m_nMultipart,
        body.GetLength(), reinterpret_cast<unsigned char*>(const_cast<char*>(body.GetDataPtr())), false, 0);
    bytes = WithProxyCredentials(bytes, len);
    if (!bytes || len < 1) {
        delete[] bytes;
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
        return;
    }
    m_RequestHeaderUnit.SetHeaderData(bytes, len);
    if (m_pSocketEngine->DoSend(bytes, len, false) < 1)
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
    (void)OpenFile2Recv();
}

long long CMLHttpEngine::UploadFileLength(const CQWString& path, long long maxLength)
{
    // Both checks raise events outside the handled range on purpose: an
    // upload without a usable file ends without any report.
    if (path.IsEmpty()) {
        OnSocketEngine_SocketEvent(velanet::KEventFilePathEmpty, 0);
        return -1;
    }
    const long long fileLen = CQFile::GetFileLength64(path);
    if (fileLen < 0 || fileLen > maxLength) {
        OnSocketEngine_SocketEvent(velanet::KEventFileLengthInvalid, 0);
        return -1;
    }
    return fileLen;
}

void CMLHttpEngine::SendMsg_PostFile()
{
    if (!m_pSocketEngine)
        return;
    CQPostFileHeaderUnit& unit = m_PostFileHeaderUnit;
    const long long fileLen = UploadFileLength(unit.m_strFilePath, KMaxPostFileLength);
    if (fileLen < 0)
        return;
    unit.SetFileSize64(fileLen);
    const bool built = m_RequestData.GetPostFileMethodData(AbsoluteTarget(), unit);
    if (built)
        unit.m_pHeaderData = WithProxyCredentials(unit.m_pHeaderData, unit.m_nHeaderLen);
    if (built && unit.m_pHeaderData && m_pSocketEngine->DoSendFile(unit, false) > 0)
        (void)OpenFile2Recv();
    else
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
}

void CMLHttpEngine::SendMsg_PostOLFile()
{
    if (!m_pSocketEngine)
        return;
    CQPostOLFileHeaderUnit& unit = m_OLFileHeaderUnit;
    const long long fileLen = UploadFileLength(unit.m_strFilePath, KMaxOLFileLength);
    if (fileLen < 0)
        return;
    unit.SetFileLen64(fileLen);
    if (m_pSocketEngine->DoSendOLFile(unit, false) < 1)
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
}

int CMLHttpEngine::OnSocketEngine_SendData(unsigned char* data, int len)
{
    ReportFlux(len, 0);
    if (m_pAdapter)
        m_pAdapter->HttpNotifySend(data, len);
    return KGoOn;
}

unsigned char* CMLHttpEngine::OnSocketEngine_GetMoreSendData(int offset, int& len)
{
    unsigned char* bytes = m_RequestHeaderUnit.m_pHeaderData;
    const int stored = m_RequestHeaderUnit.m_nHeaderLen;
    if (!bytes || offset < 0 || stored < offset)
        return nullptr;
    len = stored - offset;
    return bytes + offset;
}

// ------------------------------------------------------------ receiving

int CMLHttpEngine::OnSocketEngine_ReceiveData(unsigned char* data, int len)
{
    ReportFlux(len, 0);
    if (!m_pObserver)
        return KStop;
    if (!data || len < 0)
        len = 0;

    switch (m_enPhase) {
    case HRP_Head: {
        const int head = CollectHead(data, len);
        if (head != KGoOn)
            return head == KHeadIncomplete ? KGoOn : KStop;
        if (JudgeStatus() != KGoOn)
            return KStop;
        if (RefuseUnreadableLength() != KGoOn)
            return KStop;
        ChooseBodyMode();
        if (ReportHead() != KGoOn)
            return KStop;
        return ReadBodyAfterHead();
    }
    case HRP_Body:
        return ReadBody(data, len, KGivenBytes);
    case HRP_Done:
        // The body is complete (its gzip stream ended): nothing more of this
        // response is read.
        return KStop;
    }
    QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
    return KStop;
}

int CMLHttpEngine::CollectHead(unsigned char* data, int len)
{
    if (!m_pRecvBuf || !m_pRecvBuf->Append(data, static_cast<unsigned long>(len))) {
        OnSocketEngine_SocketEvent(velanet::KEventRecvBufferFull, 0);
        return KStop;
    }
    for (;;) {
        m_ResponseHead.Reset();
        const int used = static_cast<int>(m_pRecvBuf->GetUsedSize());
        if (m_RequestData.GetResponseHead(m_pRecvBuf->GetBuf(), used, m_ResponseHead) < 0)
            return KHeadIncomplete;
        const int headLen = m_ResponseHead.m_nHeadLen;
        if (!IsInterim(m_ResponseHead.m_nStatusCode) || headLen < 1 || headLen > used)
            return KGoOn;
        // An interim response (RFC 9110, section 15.2) has no body: it is
        // dropped whole and the next head in the buffer is parsed, or awaited.
        m_pRecvBuf->MoveDataToHead(headLen);
    }
}

bool CMLHttpEngine::IsInterim(int status)
{
    // 101 (Switching Protocols) answers an upgrade this engine never asks
    // for; the connection no longer speaks HTTP, so it stays a final status
    // (an HTTP error).
    return status >= KFirstInterim && status <= KLastInterim && status != KSwitchingProtocols;
}

int CMLHttpEngine::JudgeStatus()
{
    const int status = m_ResponseHead.m_nStatusCode;
    switch (m_enCurHES) {
    case HES_Idle:
    case HES_HttpRequest:
        break;
    case HES_DNSRequest:
        if (IsAccepted(status))
            return KGoOn;
        Reset(false);
        MoveTo(HES_Idle);
        if (m_pObserver)
            m_pObserver->OnHttpEngine_NetError(m_nRequestID, velanet::KEventHostNotResolvable);
        return KStop;
    }
    if (IsAccepted(status))
        return KGoOn;
    if (IsRedirect(status)) {
        FollowRedirect();
        return KStop;
    }
    Reset(true);
    if (m_pObserver)
        m_pObserver->OnHttpEngine_HttpError(m_nRequestID, status);
    return KStop;
}

int CMLHttpEngine::RefuseUnreadableLength()
{
    // A body framed by a length that cannot be held (no digits, a sign,
    // past 2^63 - 1) has no end to read to: one failure, no head report.
    if (m_ResponseHead.m_nBodyType != CHttpResponseHead::KBodyByLength || !m_ResponseHead.m_bContentLengthInvalid)
        return KGoOn;
    switch (m_enCurHES) {
    case HES_Idle:
    case HES_HttpRequest:
        Reset(true);
        break;
    case HES_DNSRequest:
        Reset(false);
        MoveTo(HES_Idle);
        break;
    }
    if (m_pObserver)
        m_pObserver->OnHttpEngine_NetError(m_nRequestID, velanet::KErrorLengthUnrepresentable);
    return KStop;
}

void CMLHttpEngine::ChooseBodyMode()
{
    switch (m_ResponseHead.m_nBodyType) {
    case CHttpResponseHead::KBodyByLength:
        m_enHttpRecvDataMode = HRDM_Length;
        break;
    case CHttpResponseHead::KBodyChunked:
        m_enHttpRecvDataMode = HRDM_Chunk;
        m_ResponseHead.m_nContentLength = KUnframedContentLength;
        m_ResponseHead.m_nContentLength64 = KUnframedContentLength;
        m_nChunkRemain = 0;
        break;
    default:
        m_enHttpRecvDataMode = HRDM_Stream;
        m_ResponseHead.m_nContentLength = KUnframedContentLength;
        m_ResponseHead.m_nContentLength64 = KUnframedContentLength;
        break;
    }
    m_enPhase = HRP_Body;
}

int CMLHttpEngine::ReportHead()
{
    // The gateway's reply head is the engine's own business.
    if (m_enCurHES != HES_HttpRequest)
        return KGoOn;
    const unsigned int generation = m_nGeneration;
    if (m_pObserver->OnHttpEngine_RecvHeader(m_nRequestID, m_ResponseHead) == 0) {
        if (!RequestGone(generation))
            Reset(false);
        return KStop;
    }
    return RequestGone(generation) ? KStop : KGoOn;
}

int CMLHttpEngine::ReadBodyAfterHead()
{
    const int used = static_cast<int>(m_pRecvBuf->GetUsedSize());
    int headLen = m_ResponseHead.m_nHeadLen;
    if (headLen < 0 || headLen > used)
        headLen = used;
    const int bodyBytes = used - headLen;
    if (bodyBytes <= 0) {
        m_pRecvBuf->Zero();
        return KGoOn;
    }
    // The body bytes move to the start of the buffer, where the chunk
    // reader wants them; the other readers take them from there.
    m_pRecvBuf->MoveDataToHead(headLen);
    return ReadBody(m_pRecvBuf->GetBuf(), bodyBytes, KInRecvBuffer);
}

int CMLHttpEngine::ReadBody(unsigned char* data, int len, bool buffered)
{
    switch (m_enHttpRecvDataMode) {
    case HRDM_Length:
        return OnReceivLengthData(data, len);
    case HRDM_Chunk:
        // Not tested: a size line that does not fit stays incomplete.
        if (!buffered)
            (void)m_pRecvBuf->Append(data, static_cast<unsigned long>(len));
        return OnReceivChunkData();
    case HRDM_Stream:
        return OnReceivStreamData(data, len);
    }
    QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
    return KStop;
}

void CMLHttpEngine::FollowRedirect()
{
    const CQSString& requestURL = m_RequestData.GetURL();
    const CQSString& given = m_ResponseHead.m_strLocation;
    CQSString location =
        velanet::ResolveLocation(requestURL.GetDataPtr(), requestURL.GetLength(), given.GetDataPtr(), given.GetLength());
    const CQWString recvFile(m_strRecvFilePath);
    const bool recvToFile = m_bRecvToFile;
    Reset(false);

    const unsigned int generation = m_nGeneration;
    if (m_pObserver)
        m_pObserver->OnHttpEngine_URLChange(m_nRequestID, location);
    // The page and prefetch owners follow redirects themselves.
    if (m_nRequestID == velanet::KIdCurrentPage || m_nRequestID == velanet::KIdPrefetch)
        return;
    // The observer started or cancelled a request from inside the report.
    if (RequestGone(generation))
        return;
    if (m_nRedirectsFollowed >= GetMaxRedirects()) {
        FailRedirect(velanet::KErrorTooManyRedirects, recvFile, recvToFile);
        return;
    }
    int hostLen = 0;
    const bool startable = velanet::IsRequestableURL(location.GetDataPtr(), location.GetLength()) &&
                           CHttpData::FindHost(location, hostLen) != nullptr && hostLen > 0;
    // StartGet refuses without any report, so a refusal belongs to this request.
    if (!startable ||
        StartGet(location.GetDataPtr(), recvFile.IsEmpty() ? nullptr : &recvFile, KWholeResource, SB_Redirect) ==
            KRefused)
        FailRedirect(velanet::KErrorRedirectNotStartable, recvFile, recvToFile);
}

void CMLHttpEngine::FailRedirect(int code, const CQWString& recvFile, bool recvToFile)
{
    Reset(false);
    if (recvToFile)
        (void)CQFile::DeleteFile(recvFile);
    if (m_pObserver)
        m_pObserver->OnHttpEngine_NetError(m_nRequestID, code);
}

int CMLHttpEngine::ReportResponseData(unsigned char* p, int n, int count)
{
    if (!m_pObserver)
        return KStop;
    const unsigned int generation = m_nGeneration;
    if (m_pObserver->OnHttpEngine_ResponseData(m_nRequestID, p, n, count) == 0) {
        if (!RequestGone(generation))
            Reset(false);
        return KStop;
    }
    return RequestGone(generation) ? KStop : KGoOn;
}

int CMLHttpEngine::OnReceivLengthData(unsigned char* data, int len)
{
    if (m_nRecvBytes >= m_ResponseHead.m_nContentLength64)
        return CompleteLengthBody();
    m_nRecvBytes = SaturatingAdd(m_nRecvBytes, len);
    if (m_enCurHES == HES_HttpRequest) {
        if (m_bRecvToFile)
            (void)SaveRecvData(data, len);
        // A gzip body ends with its stream; the length is not compared.
        if (m_ResponseHead.m_nContentEncoding == CHttpResponseHead::KContentEncodingGzip)
            return DecompressAndNotify(data, len);
        // The count as an int: past 2 GiB it stays at 2147483647.
        if (ReportResponseData(data, len, CHttpResponseHead::SaturatedInt(m_nRecvBytes)) != KGoOn)
            return KStop;
    } else if (m_enCurHES == HES_DNSRequest) {
        ParseDNSPDUAndStore(data, len);
    }
    if (m_nRecvBytes < m_ResponseHead.m_nContentLength64)
        return KGoOn;
    return CompleteLengthBody();
}

int CMLHttpEngine::CompleteLengthBody()
{
    Reset(false);
    if (m_enCurHES == HES_HttpRequest) {
        CQWString path(m_strRecvFilePath);
        if (m_pObserver)
            m_pObserver->OnHttpEngine_Complete(m_nRequestID, path);
        return KStop;
    }
    // The gateway reply is complete: the caller's request starts again and
    // now finds the host in the DNS cache.
    MoveTo(HES_HttpRequest);
    m_nCurKind = m_nRequestedKind;
    (void)ConnectServer(m_RequestData.GetURL().GetDataPtr());
    return KStop;
}

int CMLHttpEngine::DeliverBody(unsigned char* p, int n, int callCount)
{
    // Nothing to hand on (a read that ended right after a size line).
    if (n <= 0)
        return KGoOn;
    m_nRecvBytes = SaturatingAdd(m_nRecvBytes, n);
    if (m_bRecvToFile)
        (void)SaveRecvData(p, n);
    if (m_ResponseHead.m_nContentEncoding == CHttpResponseHead::KContentEncodingGzip)
        return DecompressAndNotify(p, n);
    return ReportResponseData(p, n, callCount);
}

// Chunked body (RFC 9112, section 7.1), as this reader takes it:
//   chunked-body = *chunk last-chunk [ trailer ]
//   chunk        = chunk-size [ ext ] CRLF chunk-data CRLF
//   last-chunk   = 1*"0" [ ext ] CRLF
// The receive buffer holds body bytes from its start; m_nChunkRemain counts
// the bytes of the current chunk's data still to come (0: the next bytes
// start with a size line, after the line end of the previous data).
// Trailer fields are never read.
int CMLHttpEngine::OnReceivChunkData()
{
    QT_ALWAYS_ASSERT(m_enHttpRecvDataMode == HRDM_Chunk, KAssertFile);
    QT_ALWAYS_ASSERT(m_pObserver != NULL, KAssertFile);

    ++m_nDataCallCount;
    const int callCount = m_nDataCallCount;
    const unsigned int generation = m_nGeneration;
    unsigned char* p = m_pRecvBuf->GetBuf();
    int avail = static_cast<int>(m_pRecvBuf->GetUsedSize());
    int consumed = 0;

    if (m_nChunkRemain > 0) {
        if (avail < m_nChunkRemain) {
            m_nChunkRemain -= avail;
            m_pRecvBuf->Zero();
            return DeliverBody(p, avail, callCount);
        }
        const int rest = m_nChunkRemain;
        if (DeliverBody(p, rest, callCount) != KGoOn || RequestGone(generation))
            return KStop;
        p += rest;
        avail -= rest;
        consumed = rest;
    }

    for (;;) {
        int lineLen = 0;
        const int size = CHttpData::GetChunkSize(p, avail, lineLen);
        if (size < 0) {
            // The size line is not complete: keep it at the buffer start.
            m_nChunkRemain = 0;
            m_pRecvBuf->MoveDataToHead(consumed);
            return KGoOn;
        }
        m_nChunkRemain = size;
        if (size == 0) {
            CompleteAtEnd();
            return KStop;
        }
        unsigned char* q = p + lineLen;
        const int rest = avail - lineLen;
        if (size > rest) {
            m_nChunkRemain = size - rest;
            m_pRecvBuf->Zero();
            return DeliverBody(q, rest, callCount);
        }
        if (DeliverBody(q, size, callCount) != KGoOn || RequestGone(generation))
            return KStop;
        consumed += lineLen + size;
        avail -= lineLen + size;
        p = q + size;
    }
}

int CMLHttpEngine::OnReceivStreamData(unsigned char* data, int len)
{
    QT_ALWAYS_ASSERT(m_enHttpRecvDataMode == HRDM_Stream, KAssertFile);
    QT_ALWAYS_ASSERT(m_pObserver != NULL, KAssertFile);

    ++m_nDataCallCount;
    m_nRecvBytes = SaturatingAdd(m_nRecvBytes, len);
    if (m_bRecvToFile)
        (void)SaveRecvData(data, len);
    if (m_ResponseHead.m_nContentEncoding == CHttpResponseHead::KContentEncodingGzip)
        return DecompressAndNotify(data, len);
    if (ReportResponseData(data, len, m_nDataCallCount) != KGoOn)
        return KStop;
    return KGoOn;
}

int CMLHttpEngine::OnSocketEngine_ReceivDataEnd()
{
    QT_ALWAYS_ASSERT(m_pObserver != NULL, KAssertFile);

    // Only a body framed by the close itself, or a length-framed body that
    // has all its bytes, ends here complete. A response without its head, a
    // body cut short, or a close after a completed gzip body is event 34.
    bool complete = false;
    switch (m_enPhase) {
    case HRP_Head:
    case HRP_Done:
        break;
    case HRP_Body:
        switch (m_enHttpRecvDataMode) {
        case HRDM_Length:
            complete = m_nRecvBytes >= m_ResponseHead.m_nContentLength64;
            break;
        case HRDM_Chunk:
            break;
        case HRDM_Stream:
            complete = true;
            break;
        }
        break;
    }
    if (!complete) {
        OnSocketEngine_SocketEvent(velanet::KEventSocketError, 0);
        return KGoOn;
    }
    CompleteAtEnd();
    return KGoOn;
}

void CMLHttpEngine::CompleteAtEnd()
{
    Reset(false);
    MoveTo(HES_Idle);
    CQWString path(m_strRecvFilePath);
    m_pObserver->OnHttpEngine_Complete(m_nRequestID, path);
}

int CMLHttpEngine::DecompressAndNotify(unsigned char* data, int len)
{
    if (!data || len <= 0 || !m_pDecompressBuf || !m_pObserver)
        return KStop;
    int offset = 0;
    int remaining = len;
    int inLen = len;
    for (;;) {
        m_pDecompressBuf->Zero();
        unsigned char* out = m_pDecompressBuf->GetBuf();
        int outLen = velanet::KDecompressPieceSize;
        if (DoFilterDecompress(data + offset, inLen, out, outLen) == KStop) {
            Reset(false);
            m_pObserver->OnHttpEngine_NetEvent(m_nRequestID, velanet::KEventDecompressFailed);
            return KStop;
        }
        // The filter leaves its unconsumed input at the end of what it was
        // given: the next call starts right after the consumed bytes.
        const int left = inLen;
        if (left >= 0 && left < remaining) {
            offset += remaining - left;
            remaining = left;
        }
        inLen = remaining;

        if (outLen > 0 && ReportResponseData(out, outLen, m_nDataCallCount) != KGoOn)
            return KStop;

        switch (m_nFilterState) {
        case TGzipUtil::FR_CallAgain:
            continue;
        case KFilterNotStarted: {
            // The compressed stream has ended: the body is complete. The
            // engine is not reset here (kept on purpose): it stays busy with
            // its head and counters until the next Reset.
            m_enPhase = HRP_Done;
            CQWString path(m_strRecvFilePath);
            m_pObserver->OnHttpEngine_Complete(m_nRequestID, path);
            return KStop;
        }
        default:
            return KGoOn;
        }
    }
}

int CMLHttpEngine::DoFilterDecompress(unsigned char* in, int& inLen, unsigned char* out, int& outLen)
{
    if (m_nFilterState == KFilterNotStarted && m_GzipUtil.SetDecodeMode(FM_Gzip) != TGzipUtil::KDone)
        return KStop;
    m_nFilterState =
        m_GzipUtil.Decompress(reinterpret_cast<char*>(in), inLen, reinterpret_cast<char*>(out), outLen);
    if (m_nFilterState == TGzipUtil::FR_StreamEnd || m_nFilterState == TGzipUtil::FR_Error) {
        const bool ended = m_nFilterState == TGzipUtil::FR_StreamEnd;
        m_GzipUtil.ResetFilter();
        m_nFilterState = KFilterNotStarted;
        return ended ? KGoOn : KStop;
    }
    return KGoOn;
}

int CMLHttpEngine::OpenFile2Recv()
{
    if (m_bRecvToFile && !m_RecvFile.Open(m_strRecvFilePath, CQFile::KModeWrite)) {
        m_bRecvToFile = false;
        return KRefused;
    }
    return KDone;
}

int CMLHttpEngine::SaveRecvData(unsigned char* data, int len)
{
    return m_RecvFile.Write(data, len);
}

// ------------------------------------------------------------ DNS gateway

void CMLHttpEngine::StartGetDNSThroughProxy()
{
    QT_ALWAYS_ASSERT(m_enCurHES == HES_DNSRequest, KAssertFile);

    if (m_nGatewayAttemptsLeft > 0)
        --m_nGatewayAttemptsLeft;
    int hostLen = 0;
    const char* host = m_RequestData.FindHost(hostLen);
    m_nRequestedKind = m_nCurKind;
    m_nCurKind = KKindGet;

    // Gateway request: the base URL followed directly by the host name.
    CQSString url(GatewayBaseURL());
    if (!host || hostLen < 1 || !url.AppendData(reinterpret_cast<const unsigned char*>(host), hostLen))
        return;
    m_DNSRequestData.SetURL(url.GetDataPtr(), url.GetLength());
    (void)ConnectServer(url.GetDataPtr());
}

void CMLHttpEngine::ParseDNSPDUAndStore(unsigned char* data, int len)
{
    if (!data || len <= 0)
        return;
    CDNSCache* cache = CDNSCache::GetOrCreateRegistered();
    const std::vector<quint32> addresses = velanet::ScanGatewayReply(data, len);
    if (!cache)
        return;
    int hostLen = 0;
    const char* host = m_RequestData.FindHost(hostLen);
    // The host bytes accumulate like the address text (kept on purpose): a
    // second address of one piece would go under the host written twice.
    CQSString hostBytes;
    for (const quint32 ip : addresses) {
        (void)hostBytes.AppendData(reinterpret_cast<const unsigned char*>(host), hostLen);
        CQWString name;
        (void)name.AppendData(reinterpret_cast<const unsigned char*>(hostBytes.GetDataPtr()), hostBytes.GetLength());
        cache->Update(name, ip);
    }
}

// ------------------------------------------------------------ proxy

void CMLHttpEngine::SetServerFor(CHttpData& target, bool mayUseProxy)
{
    int hostLen = 0;
    char* host = target.FindHost(hostLen);
    const int port = target.FindPort();
    const bool secure = target.IsSecureConnection();
    m_ProxyRoute = mayUseProxy ? CProxyConfig::RouteFor(secure, host, hostLen, port) : CProxyConfig::Route();
    m_bProxyTunnel = m_ProxyRoute.viaProxy && secure;
    if (m_ProxyRoute.viaProxy && !secure) {
        // The proxy is the server; the request line names the origin.
        m_pSocketEngine->SetServerName(reinterpret_cast<unsigned char*>(m_ProxyRoute.host.data()),
                                       m_ProxyRoute.host.size());
        m_pSocketEngine->SetPort(m_ProxyRoute.port);
        m_pSocketEngine->SetSecure(false);
        m_pSocketEngine->SetTunnel(QByteArray(), 0, QByteArray());
        return;
    }
    m_pSocketEngine->SetServerName(reinterpret_cast<unsigned char*>(host), hostLen);
    m_pSocketEngine->SetPort(port);
    m_pSocketEngine->SetSecure(secure);
    if (m_bProxyTunnel)
        m_pSocketEngine->SetTunnel(m_ProxyRoute.host, m_ProxyRoute.port, m_ProxyRoute.authorization);
    else
        m_pSocketEngine->SetTunnel(QByteArray(), 0, QByteArray());
}

unsigned char* CMLHttpEngine::WithProxyCredentials(unsigned char* bytes, int& len) const
{
    if (!bytes || len < 1 || !AbsoluteTarget() || m_ProxyRoute.authorization.isEmpty())
        return bytes;
    int withLen = 0;
    unsigned char* with = velanet::InsertProxyAuthorization(bytes, len, m_ProxyRoute.authorization, withLen);
    delete[] bytes;
    len = with ? withLen : 0;
    return with;
}

void CMLHttpEngine::OnSocketEngine_TunnelRefused(int status)
{
    Reset(true);
    if (m_pObserver)
        m_pObserver->OnHttpEngine_HttpError(m_nRequestID, status);
}
