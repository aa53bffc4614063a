#include "src/MLHttpPool.h"

#include "src/CookieHolder.h"
#include "src/MLHttpEngine.h"

#include <new>

// ------------------------------------------------------------ request units

CRequestUnit::CRequestUnit() = default;

CRequestUnit::~CRequestUnit()
{
    m_strFilePath.Empty();
    m_nUserData = KUserDataCleared;
}

CGetRequestUnit::CGetRequestUnit()
{
    m_nUnitKind = KKindGet;
}

CGetRequestUnit::~CGetRequestUnit() = default;

CDailupRequestUnit::CDailupRequestUnit()
{
    m_nUnitKind = KKindDailup;
    m_nUserData = KUserDataCleared;
}

CDailupRequestUnit::~CDailupRequestUnit() = default;

// ------------------------------------------------------------ construction

CMLHttpPool* CMLHttpPool::NewLC(MHttpPoolNotifier* notifier, CIAPConnectEngine* iap, int count)
{
    CMLHttpPool* self = new CMLHttpPool(notifier, count);
    self->ConstructL(iap);
    return self;
}

CMLHttpPool* CMLHttpPool::NewL(MHttpPoolNotifier* notifier, CIAPConnectEngine* iap, int count)
{
    return NewLC(notifier, iap, count);
}

CMLHttpPool::CMLHttpPool(MHttpPoolNotifier* notifier, int count)
    : m_nEngineCount(count > 0 ? count : 0), m_pNotifier(notifier)
{
}

void CMLHttpPool::ConstructL(CIAPConnectEngine* iap)
{
    if (m_pEngines != nullptr || m_nEngineCount == 0)
        return;
    m_pEngines = new (std::nothrow) CMLHttpEngine*[static_cast<std::size_t>(m_nEngineCount)]();
    if (m_pEngines == nullptr) {
        m_nEngineCount = 0;  // no room for the array: a pool that refuses every request
        return;
    }
    for (int i = 0; i < m_nEngineCount; ++i) {
        m_pEngines[i] = CMLHttpEngine::NewL(this);
        m_pEngines[i]->SetIap(iap);
    }
}

CMLHttpPool::~CMLHttpPool()
{
    if (m_pEngines != nullptr) {
        for (int i = 0; i < m_nEngineCount; ++i) {
            delete m_pEngines[i];
            m_pEngines[i] = nullptr;
        }
        delete[] m_pEngines;
        m_pEngines = nullptr;
    }
    m_pNotifier = nullptr;
    m_pCookieHolder = nullptr;
}

CMLHttpEngine* CMLHttpPool::GetEngine(int index) const
{
    if (m_pEngines == nullptr || index < 0 || index >= m_nEngineCount)
        return nullptr;
    return m_pEngines[index];
}

CMLHttpEngine* CMLHttpPool::FindIdeEngine()
{
    for (int i = 0; i < m_nEngineCount; ++i) {
        CMLHttpEngine* engine = GetEngine(i);
        if (engine != nullptr && engine->IsIdle())
            return engine;
    }
    return nullptr;
}

// ------------------------------------------------------------ requests

CMLHttpEngine* CMLHttpPool::TakeEngine(const CQSString& url, int id)
{
    if (url.IsEmpty())
        return nullptr;
    CMLHttpEngine* engine = FindIdeEngine();
    if (engine != nullptr)
        engine->SetRequestID(id);
    return engine;
}

int CMLHttpPool::DoGet(const CQSString& url, int id, const CQWString* recvFile)
{
    return DoGetPartial(url, id, recvFile, CQRequestHeaderUnit::KNoOffset);
}

int CMLHttpPool::DoGet(const CQSString& url, int id, const CQWString& recvFile)
{
    return DoGet(url, id, &recvFile);
}

int CMLHttpPool::DoGetPartial(const CQSString& url, int id, const CQWString* recvFile, int offset)
{
    return DoGetPartial64(url, id, recvFile, offset);
}

int CMLHttpPool::DoGetPartial64(const CQSString& url, int id, const CQWString* recvFile, long long offset)
{
    CMLHttpEngine* engine = TakeEngine(url, id);
    if (engine == nullptr)
        return KRefused;
    return engine->DoGet64(url.GetDataPtr(), recvFile, offset) != CMLHttpEngine::KRefused ? KStarted : KRefused;
}

int CMLHttpPool::DoPost(const CQSString& url, int id, const CQWString* recvFile, unsigned char* data, int len)
{
    CMLHttpEngine* engine = TakeEngine(url, id);
    if (engine == nullptr)
        return KRefused;
    return engine->DoPost(url.GetDataPtr(), recvFile, data, len) != CMLHttpEngine::KRefused ? KStarted : KRefused;
}

int CMLHttpPool::DoPost(const CQSString& url, int id, const CQWString& recvFile, unsigned char* data, int len)
{
    return DoPost(url, id, &recvFile, data, len);
}

int CMLHttpPool::DoPostFile(const CQSString& url, int id, const CQWString* recvFile, unsigned char* data, int len,
                            const CQWString& filePath, const CQWString& second)
{
    CMLHttpEngine* engine = TakeEngine(url, id);
    if (engine == nullptr)
        return KRefused;
    return engine->DoPostFile(url.GetDataPtr(), recvFile, data, len, filePath, second) != CMLHttpEngine::KRefused
               ? KStarted
               : KRefused;
}

// ------------------------------------------------------------ cancels

void CMLHttpPool::CancelById(int id)
{
    for (int i = 0; i < m_nEngineCount; ++i) {
        CMLHttpEngine* engine = GetEngine(i);
        if (engine != nullptr && !engine->IsIdle() && engine->GetRequestID() == id)
            (void)engine->CancelRequest();
    }
}

void CMLHttpPool::CancelPageRequest()
{
    CancelById(KIdPage);
}

void CMLHttpPool::CancelPrefechRequest()
{
    CancelById(KIdPrefetch);
}

void CMLHttpPool::CancelCssRequest()
{
    CancelById(KIdCss);
}

void CMLHttpPool::CancelImgRequest()
{
    CancelById(KIdImage);
}

void CMLHttpPool::CancelDownLoadRequest(int id)
{
    CancelById(id);
}

// ------------------------------------------------------------ cookies

void CMLHttpPool::EnableCookie(QCookieHolder* holder)
{
    if (m_bCookieEnabled)
        return;
    m_pCookieHolder = holder;
    for (int i = 0; i < m_nEngineCount; ++i) {
        if (CMLHttpEngine* engine = GetEngine(i))
            engine->SetCookieHold(holder);
    }
    m_bCookieEnabled = true;
}

void CMLHttpPool::DisableCookie()
{
    if (!m_bCookieEnabled)
        return;
    for (int i = 0; i < m_nEngineCount; ++i) {
        if (CMLHttpEngine* engine = GetEngine(i))
            engine->SetCookieHold(nullptr);
    }
    m_pCookieHolder = nullptr;
    m_bCookieEnabled = false;
}

void CMLHttpPool::SaveCookies(const CQSString& url, const CQList<CQSString*>& lines)
{
    if (m_pCookieHolder == nullptr)
        return;
    POSITION pos = lines.GetHeadPosition();
    while (pos != nullptr) {
        const CQSString* line = lines.GetNext(pos);
        if (line != nullptr)
            (void)m_pCookieHolder->ParseCookie(url, *line);
    }
}

// ------------------------------------------------------------ the current page

CMLHttpEngine* CMLHttpPool::FindPageEngine() const
{
    for (int i = 0; i < m_nEngineCount; ++i) {
        CMLHttpEngine* engine = GetEngine(i);
        if (engine != nullptr && engine->GetRequestID() == KIdPage)
            return engine;
    }
    return nullptr;
}

int CMLHttpPool::GetCurMethod()
{
    const CMLHttpEngine* engine = FindPageEngine();
    return engine != nullptr ? engine->GetCurMethod() : KKindNone;
}

CQSString* CMLHttpPool::GetCurPostData()
{
    CMLHttpEngine* engine = FindPageEngine();
    return engine != nullptr ? &engine->GetCurPostData() : nullptr;
}

// ------------------------------------------------------------ reports

int CMLHttpPool::HttpErrorOccured(int id, int status)
{
    if (m_pNotifier == nullptr)
        return KNoNotifierResult;
    return m_pNotifier->HttpErrorOccured(id, status);
}

int CMLHttpPool::HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData& data)
{
    if (m_pNotifier == nullptr)
        return KNoNotifierResult;
    const int result = m_pNotifier->HttpHeaderReceived(id, head, data);
    // After the report on purpose: the owner sees the head first. The URL is
    // that of the record the adapter passes, which is empty, so these
    // cookies land under the empty domain; the engine's own request record
    // has already stored them under the request's host.
    if (m_bCookieEnabled && !head.m_listCookies.IsEmpty())
        SaveCookies(data.GetURL(), head.m_listCookies);
    return result;
}

int CMLHttpPool::HttpResponseReceived(int id, unsigned char* data, int len, int n)
{
    if (m_pNotifier == nullptr)
        return KNoNotifierResult;
    return m_pNotifier->HttpResponseReceived(id, data, len, n);
}

int CMLHttpPool::HttpResponseComplete(int id, CQWString& recvFile)
{
    if (m_pNotifier == nullptr)
        return KNoNotifierResult;
    return m_pNotifier->HttpResponseComplete(id, recvFile);
}

int CMLHttpPool::HttpEventNotify(int id, int event)
{
    if (m_pNotifier == nullptr)
        return KNoNotifierResult;
    return m_pNotifier->HttpEventNotify(id, event);
}

int CMLHttpPool::HttpErrorNotify(int id, int event)
{
    if (m_pNotifier == nullptr)
        return KNoNotifierResult;
    return m_pNotifier->HttpErrorNotify(id, event);
}

int CMLHttpPool::HttpEngine_URLChange(int id, CQSString& location)
{
    if (m_pNotifier == nullptr)
        return KNoNotifierResult;
    return m_pNotifier->HttpEngine_URLChange(id, location);
}
