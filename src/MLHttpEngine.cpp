#include "src/MLHttpEngine.h"

#include "BaseClass/src/QtAssert.h"
#include "src/DNSCache.h"
#include "src/internal/DnsGatewayReply_p.h"
#include "src/internal/LocationResolve_p.h"

#include <QHostAddress>
#include <QString>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

namespace {

const char KAssertFile[] = "src/MLHttpEngine";

// Filter state before the first piece of a compressed body.
constexpr int KFilterNotStarted = 0;

// No resume offset: the whole resource.
constexpr int KWholeResource = CQRequestHeaderUnit::KNoOffset;

// The multipart flag is never set by this engine.
constexpr int KNoMultipart = 0;
// No absolute request target: the engine talks to origin servers.
constexpr int KOriginTarget = 0;
// The gateway request asks for no encoding.
constexpr int KGatewayEncodingMode = 0;

CQSString& GatewayBaseURL()
{
    static CQSString url(CMLHttpEngine::KDefaultDNSGatewayURL);
    return url;
}

// Counters of body bytes stop at INT_MAX instead of wrapping.
int SaturatingAdd(int a, int b)
{
    if (b > 0 && a > INT_MAX - b)
        return INT_MAX;
    if (b < 0 && a < INT_MIN - b)
        return INT_MIN;
    return a + b;
}

bool IsAccepted(int status)
{
    return status >= CMLHttpEngine::KFirstAccepted && status <= CMLHttpEngine::KLastAccepted;
}

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
    m_pSocketEngine = CQHttpSocketEngine::NewL(this, KSocketSliceSize, KSocketSliceSize);
    QT_ALWAYS_ASSERT(m_pSocketEngine != NULL, KAssertFile);

    m_pRecvBuf = std::make_unique<CMLDataBuf>();
    (void)m_pRecvBuf->Create(KRecvBufferSize);  // no storage: every append fails (event 64)
    m_pDecompressBuf = std::make_unique<CMLDataBuf>();
    (void)m_pDecompressBuf->Create(KDecompressBufferSize);

    m_bHeadReceived = false;
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

void CMLHttpEngine::BeginRequest(int kind)
{
    Reset(false);
    m_nRequestedKind = kind;
    m_nCurKind = kind;
    m_bGatewayTried = false;
}

int CMLHttpEngine::DoGet(const char* url, const CQWString* recvFile, int offset)
{
    if (!m_pSocketEngine)
        return KRefused;
    BeginRequest(KKindGet);
    m_RequestHeaderUnit.FreeHeaderData();
    m_RequestHeaderUnit.m_nOffset = offset;
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
    BeginRequest(KKindPost);
    m_RequestHeaderUnit.FreeHeaderData();
    m_RequestHeaderUnit.m_nOffset = KWholeResource;
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
    BeginRequest(KKindPostFile);
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
    BeginRequest(KKindPostOLFile);
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
        m_enCurHES = HES_HttpRequest;
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
    int hostLen = 0;
    char* host = target->FindHost(hostLen);
    m_pSocketEngine->SetServerName(reinterpret_cast<unsigned char*>(host), hostLen);
    m_pSocketEngine->SetPort(target->FindPort());
    m_pSocketEngine->SetSecure(target->IsSecureConnection());
    return m_pSocketEngine->ConnectL();
}

void CMLHttpEngine::Reset(bool deleteFile)
{
    ++m_nGeneration;
    if (m_pSocketEngine)
        m_pSocketEngine->DisConnect();
    m_nRecvBytes = 0;
    m_bHeadReceived = false;
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

void CMLHttpEngine::SetPriority(CRequestUnit::enRequestPriority /*priority*/)
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

// ------------------------------------------------------------ socket events

void CMLHttpEngine::OnSocketEngine_SocketEvent(int event, int /*param*/)
{
    if (!m_pSocketEngine)
        return;
    if (event < KEventFirstHandled || event > KEventLastHandled)
        return;
    switch (event) {
    case KEventProgress16:
    case KEventProgress20:
    case KEventResolved:
    case KEventLookupStarted:
        if (m_pObserver)
            m_pObserver->OnHttpEngine_NetEvent(m_nRequestID, event);
        return;
    case KEventFailure17:
    case KEventFailure18:
    case KEventFailure33:
    case KEventSocketError:
    case KEventPassedOn35:
    case KEventDecompressFailed:
    case KEventPassedOn49:
    case KEventPassedOn50:
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
        // 19, 21..31, 39..47, 51..63: nothing.
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
        m_pObserver->OnHttpEngine_NetEvent(m_nRequestID, KEventConnected);
}

void CMLHttpEngine::OnHostNotResolvable()
{
    switch (m_enCurHES) {
    case HES_Idle:
        return;
    case HES_HttpRequest:
        if (!m_bGatewayTried) {
            m_enCurHES = HES_DNSRequest;
            StartGetDNSThroughProxy();
            return;
        }
        // The retry after a gateway answer did not resolve either: one
        // gateway attempt per request, then the request fails.
        [[fallthrough]];
    case HES_DNSRequest:
        Reset(false);
        m_enCurHES = HES_Idle;
        if (m_pObserver)
            m_pObserver->OnHttpEngine_NetError(m_nRequestID, KEventHostNotResolvable);
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
        if (m_RequestHeaderUnit.m_nOffset >= 0)
            bytes = m_RequestData.PartialGetMethodData(len, m_nRequestID, false, m_RequestHeaderUnit.m_nOffset);
        else
            bytes = m_RequestData.GetMethodData(KKindGet, len, m_nRequestID, KOriginTarget, KNoMultipart, 0, nullptr,
                                                false, 0);
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
        KKindPost, len, m_nRequestID, KOriginTarget, m_nMultipart, body.GetLength(),
        reinterpret_cast<unsigned char*>(const_cast<char*>(body.GetDataPtr())), false, 0);
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

int CMLHttpEngine::UploadFileLength(const CQWString& path)
{
    // Both checks raise events outside the handled range on purpose: an
    // upload without a usable file ends without any report.
    if (path.IsEmpty()) {
        OnSocketEngine_SocketEvent(KEventFilePathEmpty, 0);
        return -1;
    }
    const int fileLen = CQFile::GetFileLenght(path);
    if (fileLen < 0)
        OnSocketEngine_SocketEvent(KEventFileLengthInvalid, 0);
    return fileLen < 0 ? -1 : fileLen;
}

void CMLHttpEngine::SendMsg_PostFile()
{
    if (!m_pSocketEngine)
        return;
    CQPostFileHeaderUnit& unit = m_PostFileHeaderUnit;
    const int fileLen = UploadFileLength(unit.m_strFilePath);
    if (fileLen < 0)
        return;
    unit.m_nFileSize = fileLen;
    if (m_RequestData.GetPostFileMethodData(false, unit) && m_pSocketEngine->DoSendFile(unit, false) > 0)
        (void)OpenFile2Recv();
    else
        QT_ASSERT_UNREACHABLE("FALSE", KAssertFile);
}

void CMLHttpEngine::SendMsg_PostOLFile()
{
    if (!m_pSocketEngine)
        return;
    CQPostOLFileHeaderUnit& unit = m_OLFileHeaderUnit;
    const int fileLen = UploadFileLength(unit.m_strFilePath);
    if (fileLen < 0)
        return;
    unit.m_nFileLen = fileLen;
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

    if (!m_bHeadReceived) {
        if (!m_pRecvBuf || !m_pRecvBuf->Append(data, static_cast<unsigned long>(len))) {
            OnSocketEngine_SocketEvent(KEventRecvBufferFull, 0);
            return KStop;
        }
        m_ResponseHead.Reset();
        unsigned char* buf = m_pRecvBuf->GetBuf();
        const int used = static_cast<int>(m_pRecvBuf->GetUsedSize());
        if (m_RequestData.GetResponseHead(buf, used, m_ResponseHead) < 0)
            return KGoOn;
        if (HandleResponseStatus() != KGoOn)
            return KStop;

        m_bHeadReceived = true;
        switch (m_ResponseHead.m_nBodyType) {
        case CHttpResponseHead::KBodyByLength:
            m_enHttpRecvDataMode = HRDM_Length;
            break;
        case CHttpResponseHead::KBodyChunked:
            m_enHttpRecvDataMode = HRDM_Chunk;
            m_ResponseHead.m_nContentLength = KUnframedContentLength;
            m_bLastChunkSeen = false;
            break;
        default:
            m_enHttpRecvDataMode = HRDM_Stream;
            m_ResponseHead.m_nContentLength = KUnframedContentLength;
            break;
        }

        if (m_enCurHES == HES_HttpRequest) {
            const unsigned int generation = m_nGeneration;
            if (m_pObserver->OnHttpEngine_RecvHeader(m_nRequestID, m_ResponseHead) == 0) {
                if (!RequestGone(generation))
                    Reset(false);
                return KStop;
            }
            if (RequestGone(generation))
                return KStop;
        }

        int headLen = m_ResponseHead.m_nHeadLen;
        if (headLen < 0 || headLen > used)
            headLen = used;
        const int bodyBytes = used - headLen;
        if (bodyBytes <= 0) {
            m_pRecvBuf->Zero();
            return KGoOn;
        }
        if (m_enHttpRecvDataMode == HRDM_Chunk) {
            m_pRecvBuf->MoveDataToHead(headLen);
            m_nChunkRemain = 0;
            return OnReceivChunkData();
        }
        data = buf + headLen;
        len = bodyBytes;
    } else if (m_enHttpRecvDataMode == HRDM_Chunk) {
        // Not tested: a size line that does not fit stays incomplete.
        (void)m_pRecvBuf->Append(data, static_cast<unsigned long>(len));
        return OnReceivChunkData();
    }

    if (m_enHttpRecvDataMode == HRDM_Stream)
        return OnReceivStreamData(data, len);
    return OnReceivLengthData(data, len);
}

int CMLHttpEngine::HandleResponseStatus()
{
    const int status = m_ResponseHead.m_nStatusCode;
    if (m_enCurHES == HES_DNSRequest) {
        if (IsAccepted(status))
            return KGoOn;
        Reset(false);
        m_enCurHES = HES_Idle;
        if (m_pObserver)
            m_pObserver->OnHttpEngine_NetError(m_nRequestID, KEventHostNotResolvable);
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

void CMLHttpEngine::FollowRedirect()
{
    const CQSString& requestURL = m_RequestData.GetURL();
    const CQSString& given = m_ResponseHead.m_strLocation;
    CQSString location =
        velanet::ResolveLocation(requestURL.GetDataPtr(), requestURL.GetLength(), given.GetDataPtr(), given.GetLength());
    const CQWString recvFile(m_strRecvFilePath);
    Reset(false);

    const unsigned int generation = m_nGeneration;
    if (m_pObserver)
        m_pObserver->OnHttpEngine_URLChange(m_nRequestID, location);
    // The page and prefetch owners follow redirects themselves. No limit
    // and no loop detection: kept on purpose, owners count redirects.
    if (m_nRequestID == KIdCurrentPage || m_nRequestID == KIdPrefetch)
        return;
    // The observer started or cancelled a request from inside the report.
    if (RequestGone(generation))
        return;
    (void)DoGet(location.GetDataPtr(), recvFile.IsEmpty() ? nullptr : &recvFile, KWholeResource);
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
    if (m_nRecvBytes >= m_ResponseHead.m_nContentLength)
        return CompleteLengthBody();
    m_nRecvBytes = SaturatingAdd(m_nRecvBytes, len);
    if (m_enCurHES == HES_HttpRequest) {
        if (m_bRecvToFile)
            (void)SaveRecvData(data, len);
        // A gzip body ends with its stream; the length is not compared.
        if (m_ResponseHead.m_nContentEncoding == CHttpResponseHead::KContentEncodingGzip)
            return DecompressAndNotify(data, len);
        if (ReportResponseData(data, len, m_nRecvBytes) != KGoOn)
            return KStop;
    } else if (m_enCurHES == HES_DNSRequest) {
        ParseDNSPDUAndStore(data, len);
    }
    if (m_nRecvBytes < m_ResponseHead.m_nContentLength)
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
    m_enCurHES = HES_HttpRequest;
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
// the bytes of the current chunk's data still to come (0 or less: the next
// bytes start with a size line, after the line end of the previous data).
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
        m_nChunkRemain = size;
        if (size < 0) {
            // The size line is not complete: keep it at the buffer start.
            m_pRecvBuf->MoveDataToHead(consumed);
            return KGoOn;
        }
        if (size == 0) {
            m_bLastChunkSeen = true;
            (void)OnSocketEngine_ReceivDataEnd();
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

    // A body framed by its length or by chunks that the connection cut short
    // (or a response that never got its head) is a failed request, not a
    // body: only a body framed by the close itself ends here complete.
    const bool lengthCutShort = m_enHttpRecvDataMode == HRDM_Length &&
                                (!m_bHeadReceived || m_nRecvBytes < m_ResponseHead.m_nContentLength);
    const bool chunksCutShort = m_enHttpRecvDataMode == HRDM_Chunk && !m_bLastChunkSeen;
    m_bLastChunkSeen = false;
    if (lengthCutShort || chunksCutShort) {
        OnSocketEngine_SocketEvent(KEventSocketError, 0);
        return KGoOn;
    }
    Reset(false);
    m_enCurHES = HES_Idle;
    CQWString path(m_strRecvFilePath);
    m_pObserver->OnHttpEngine_Complete(m_nRequestID, path);
    return KGoOn;
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
        int outLen = KDecompressBufferSize;
        if (DoFilterDecompress(data + offset, inLen, out, outLen) == KStop) {
            Reset(false);
            m_pObserver->OnHttpEngine_NetEvent(m_nRequestID, KEventDecompressFailed);
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

    m_bGatewayTried = true;
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

// ------------------------------------------------------------ helpers

namespace velanet {

std::vector<quint32> ScanGatewayReply(const unsigned char* data, int len)
{
    std::vector<quint32> addresses;
    if (!data || len < 1)
        return addresses;
    // Never cleared within a piece: see the file comment of the header.
    QString accumulated;
    int pos = 0;
    while (pos < len) {
        int end = pos;
        while (end < len && data[end] != KGatewayItemEnd)
            ++end;
        if (end == len)
            break;  // text after the last ";" is ignored
        const int itemLen = end - pos;
        if (itemLen >= KGatewayItemMinLen && itemLen <= KGatewayItemMaxLen) {
            accumulated.append(QString::fromLatin1(reinterpret_cast<const char*>(data + pos), itemLen));
            QHostAddress address;
            if (address.setAddress(accumulated))
                addresses.push_back(address.toIPv4Address());
        }
        pos = end + 1;
    }
    return addresses;
}

namespace {

bool IsAlpha(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool IsSchemeChar(char c)
{
    return IsAlpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

struct Part
{
    const char* data = nullptr;
    int len = 0;
    bool defined = false;
};

Part PartOf(const char* text, int start, int len)
{
    Part part;
    if (start >= 0) {
        part.data = text + start;
        part.len = len;
        part.defined = true;
    }
    return part;
}

void AppendPart(std::string& out, const Part& part)
{
    if (part.len > 0)
        out.append(part.data, static_cast<size_t>(part.len));
}

bool StartsWith(const std::string& s, size_t pos, const char* prefix)
{
    return s.compare(pos, std::char_traits<char>::length(prefix), prefix) == 0;
}

bool RestEquals(const std::string& s, size_t pos, const char* text)
{
    return s.compare(pos, std::string::npos, text) == 0;
}

// Drops the last segment of out together with the "/" before it.
void DropLastSegment(std::string& out)
{
    const size_t slash = out.rfind('/');
    out.erase(slash == std::string::npos ? 0 : slash);
}

std::string RemoveDots(const std::string& input)
{
    std::string out;
    size_t pos = 0;
    const size_t n = input.size();
    while (pos < n) {
        if (StartsWith(input, pos, "../")) {
            pos += 3;
        } else if (StartsWith(input, pos, "./")) {
            pos += 2;
        } else if (StartsWith(input, pos, "/./")) {
            pos += 2;  // leaves the "/" as the start of the input
        } else if (RestEquals(input, pos, "/.")) {
            out += '/';
            pos = n;
        } else if (StartsWith(input, pos, "/../")) {
            pos += 3;
            DropLastSegment(out);
        } else if (RestEquals(input, pos, "/..")) {
            DropLastSegment(out);
            out += '/';
            pos = n;
        } else if (RestEquals(input, pos, ".") || RestEquals(input, pos, "..")) {
            pos = n;
        } else {
            size_t end = input.find('/', pos + (input[pos] == '/' ? 1 : 0));
            if (end == std::string::npos)
                end = n;
            out.append(input, pos, end - pos);
            pos = end;
        }
    }
    return out;
}

CQSString ToCQSString(const std::string& s)
{
    CQSString out;
    (void)out.SetData(reinterpret_cast<const unsigned char*>(s.data()), static_cast<int>(s.size()));
    return out;
}

}  // namespace

UriParts SplitUriReference(const char* text, int len)
{
    UriParts parts;
    if (!text || len < 1) {
        parts.pathLen = 0;
        return parts;
    }
    int pos = 0;
    // scheme ":" only when the grammar's first segment is a scheme.
    if (IsAlpha(text[0])) {
        int i = 1;
        while (i < len && IsSchemeChar(text[i]))
            ++i;
        if (i < len && text[i] == ':') {
            parts.schemeStart = 0;
            parts.schemeLen = i;
            pos = i + 1;
        }
    }
    if (pos + 1 < len && text[pos] == '/' && text[pos + 1] == '/') {
        int end = pos + 2;
        while (end < len && text[end] != '/' && text[end] != '?' && text[end] != '#')
            ++end;
        parts.authorityStart = pos + 2;
        parts.authorityLen = end - (pos + 2);
        pos = end;
    }
    int end = pos;
    while (end < len && text[end] != '?' && text[end] != '#')
        ++end;
    parts.pathStart = pos;
    parts.pathLen = end - pos;
    pos = end;
    if (pos < len && text[pos] == '?') {
        end = pos + 1;
        while (end < len && text[end] != '#')
            ++end;
        parts.queryStart = pos + 1;
        parts.queryLen = end - (pos + 1);
        pos = end;
    }
    if (pos < len && text[pos] == '#') {
        parts.fragmentStart = pos + 1;
        parts.fragmentLen = len - (pos + 1);
    }
    return parts;
}

CQSString RemoveDotSegments(const char* path, int len)
{
    if (!path || len < 1)
        return CQSString();
    return ToCQSString(RemoveDots(std::string(path, static_cast<size_t>(len))));
}

CQSString ResolveLocation(const char* base, int baseLen, const char* location, int locationLen)
{
    if (!location || locationLen < 1)
        return CQSString();
    const UriParts r = SplitUriReference(location, locationLen);
    if (r.schemeStart >= 0)
        return CQSString(location, locationLen);
    if (!base || baseLen < 0)
        baseLen = 0;
    const UriParts b = SplitUriReference(base, baseLen);

    // RFC 3986, section 5.2.2, for a reference without a scheme.
    const Part rAuthority = PartOf(location, r.authorityStart, r.authorityLen);
    const Part rPath = PartOf(location, r.pathStart, r.pathLen);
    const Part rQuery = PartOf(location, r.queryStart, r.queryLen);
    const Part rFragment = PartOf(location, r.fragmentStart, r.fragmentLen);
    const Part bScheme = PartOf(base, b.schemeStart, b.schemeLen);
    const Part bAuthority = PartOf(base, b.authorityStart, b.authorityLen);
    const Part bPath = PartOf(base, b.pathStart, b.pathLen);
    const Part bQuery = PartOf(base, b.queryStart, b.queryLen);

    Part authority;
    Part query;
    std::string path;
    if (rAuthority.defined) {
        authority = rAuthority;
        path = RemoveDots(std::string(rPath.data, static_cast<size_t>(rPath.len)));
        query = rQuery;
    } else {
        authority = bAuthority;
        if (rPath.len == 0) {
            path.assign(bPath.data ? bPath.data : "", static_cast<size_t>(bPath.len));
            query = rQuery.defined ? rQuery : bQuery;
        } else {
            if (rPath.data[0] == '/') {
                path = RemoveDots(std::string(rPath.data, static_cast<size_t>(rPath.len)));
            } else {
                // Merge (section 5.2.3).
                std::string merged;
                if (bAuthority.defined && bPath.len == 0) {
                    merged = "/";
                } else {
                    const std::string basePath(bPath.data ? bPath.data : "", static_cast<size_t>(bPath.len));
                    const size_t slash = basePath.rfind('/');
                    if (slash != std::string::npos)
                        merged = basePath.substr(0, slash + 1);
                }
                merged.append(rPath.data, static_cast<size_t>(rPath.len));
                path = RemoveDots(merged);
            }
            query = rQuery;
        }
    }

    // Recomposition (section 5.3).
    std::string out;
    if (bScheme.defined) {
        AppendPart(out, bScheme);
        out += ':';
    }
    if (authority.defined) {
        out += "//";
        AppendPart(out, authority);
    }
    out += path;
    if (query.defined) {
        out += '?';
        AppendPart(out, query);
    }
    if (rFragment.defined) {
        out += '#';
        AppendPart(out, rFragment);
    }
    return ToCQSString(out);
}

}  // namespace velanet
