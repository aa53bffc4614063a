#ifndef VELANET_MLHTTPPOOL_H
#define VELANET_MLHTTPPOOL_H

// CMLHttpPool is the owner's front door for HTTP. It owns a fixed number of
// CMLHttpEngines, starts each request on the first idle one (none idle: the
// request is refused, there is no queue), tags it with the caller's request
// id, cancels requests by id class, stores the cookies of every response
// head in the shared cookie holder when cookies are enabled, and passes
// every report of every engine on to one MHttpPoolNotifier.
//
// Request id classes (any other id is a download or other request):
//   0xF0000000 current page   CancelPageRequest     redirects reported only
//   0xE0000000 prefetch       CancelPrefechRequest  redirects reported only
//   0xC0000000 style sheet    CancelCssRequest      redirects followed
//   0xA0000000 image          CancelImgRequest      redirects followed
//
// The request unit records (CRequestUnit and its two subclasses) describe a
// request an owner keeps waiting; neither the pool nor the engines read them.
//
// The engine is forward-declared: a lower layer never includes this header.

#include "BaseClass/src/CQList.h"
#include "BaseClass/src/CQString.h"
#include "src/HttpData.h"
#include "src/HttpObserver.h"
#include "src/NetConstants.h"

class CIAPConnectEngine;
class CMLHttpEngine;
class QCookieHolder;

// What the owner of a pool hears: the first seven calls of MHttpNotifier
// with the same names, arguments and order. The first argument is always
// the request id.
class MHttpPoolNotifier
{
public:
    virtual int HttpErrorOccured(int id, int status) = 0;
    virtual int HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData& data) = 0;
    virtual int HttpResponseReceived(int id, unsigned char* data, int len, int n) = 0;
    virtual int HttpResponseComplete(int id, CQWString& recvFile) = 0;
    virtual int HttpEventNotify(int id, int event) = 0;
    virtual int HttpErrorNotify(int id, int event) = 0;
    virtual int HttpEngine_URLChange(int id, CQSString& location) = 0;

protected:
    // The pool never owns or deletes its notifier.
    MHttpPoolNotifier() = default;
    MHttpPoolNotifier(const MHttpPoolNotifier&) = default;
    MHttpPoolNotifier& operator=(const MHttpPoolNotifier&) = default;
    ~MHttpPoolNotifier() = default;
};

// A request waiting to be made, as an owner records it.
class CRequestUnit
{
public:
    // Priority an owner gives a waiting request (declared beside the other
    // shared values, so that the engine need not include this header).
    using enRequestPriority = velanet::enRequestPriority;
    static constexpr enRequestPriority RP_Highest = velanet::RP_Highest;
    static constexpr enRequestPriority RP_High = velanet::RP_High;
    static constexpr enRequestPriority RP_Normal = velanet::RP_Normal;
    static constexpr enRequestPriority RP_Low = velanet::RP_Low;
    static constexpr enRequestPriority RP_Lowest = velanet::RP_Lowest;

    // Unit kinds (m_nUnitKind).
    enum
    {
        KKindBase = 0,
        KKindDailup = 1,
        KKindGet = 2,
    };

    // Initial values of the plain fields.
    static constexpr unsigned int KUserDataCleared = 0;
    static constexpr int KParamUnset = -1;
    static constexpr int KCounterStart = 0;

    CRequestUnit();
    // Empties the file path and clears the user data.
    virtual ~CRequestUnit();
    CRequestUnit(const CRequestUnit&) = delete;
    CRequestUnit& operator=(const CRequestUnit&) = delete;

    // Fields in record order.
    CQSString m_strURL;
    CQWString m_strFilePath;
    int m_nUnitKind = KKindBase;
    enRequestPriority m_enPriority = RP_Normal;
    unsigned int m_nUserData = KUserDataCleared;
    int m_nParam1 = KParamUnset;
    int m_nParam2 = KParamUnset;
    int m_nCounter = KCounterStart;
};

// A waiting GET: unit kind 2 and one more field.
class CGetRequestUnit : public CRequestUnit
{
public:
    CGetRequestUnit();
    ~CGetRequestUnit() override;

    int m_nGetParam = KParamUnset;
};

// A waiting request that needs an access point first: unit kind 1.
class CDailupRequestUnit : public CRequestUnit
{
public:
    CDailupRequestUnit();
    ~CDailupRequestUnit() override;
};

class CMLHttpPool : public MHttpNotifier
{
public:
    // Request id classes (see the file comment).
    static constexpr int KIdPage = velanet::KIdCurrentPage;
    static constexpr int KIdPrefetch = velanet::KIdPrefetch;
    static constexpr int KIdCss = velanet::KIdStyleSheet;
    static constexpr int KIdImage = velanet::KIdImage;

    // Request results.
    enum
    {
        KRefused = 0,  // empty URL, no idle engine, or the engine refused
        KStarted = 1,
    };
    // Result of a report when there is no notifier.
    static constexpr int KNoNotifierResult = 0;
    // GetCurMethod when no engine carries the page id: the "none" kind.
    static constexpr int KKindNone = velanet::KKindNone;

    // ---- construction
    // NewLC(...) and NewL(...): the constructor, then ConstructL(iap).
    static CMLHttpPool* NewL(MHttpPoolNotifier* notifier, CIAPConnectEngine* iap, int count);
    static CMLHttpPool* NewLC(MHttpPoolNotifier* notifier, CIAPConnectEngine* iap, int count);
    // notifier is not owned and may be null (every report is then dropped);
    // a negative count is taken as 0 (a pool that refuses every request).
    CMLHttpPool(MHttpPoolNotifier* notifier, int count);
    // Creates the count engines in array order, each reporting to this pool
    // through its own adapter, and gives each the access point engine.
    void ConstructL(CIAPConnectEngine* iap);

    // ---- MHttpNotifier: every engine report, passed on slot by slot with
    // the notifier's result (KNoNotifierResult without a notifier).
    int HttpErrorOccured(int id, int status) override;
    // Passed on; then, with cookies enabled, the head's cookie lines are
    // stored for the URL of data (the adapter's record: an empty URL).
    int HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData& data) override;
    int HttpResponseReceived(int id, unsigned char* data, int len, int n) override;
    int HttpResponseComplete(int id, CQWString& recvFile) override;
    int HttpEventNotify(int id, int event) override;
    int HttpErrorNotify(int id, int event) override;
    int HttpEngine_URLChange(int id, CQSString& location) override;
    // HttpNotifySend keeps the inherited body: not passed on.

    // Deletes every engine (each with its socket engine), then the array.
    virtual ~CMLHttpPool();

    // The first engine in array order that exists and is idle; null if none.
    CMLHttpEngine* FindIdeEngine();

    // ---- requests: KStarted when an idle engine started the request, else
    // KRefused (an empty URL is refused before any engine is looked at).
    // recvFile: also write the body to this file (null: memory only).
    int DoGet(const CQSString& url, int id, const CQWString* recvFile);
    int DoGet(const CQSString& url, int id, const CQWString& recvFile);
    // A range request from byte offset.
    int DoGetPartial(const CQSString& url, int id, const CQWString* recvFile, int offset);
    // The same from a 64-bit offset, for resources past 2 GiB.
    int DoGetPartial64(const CQSString& url, int id, const CQWString* recvFile, long long offset);
    int DoPost(const CQSString& url, int id, const CQWString* recvFile, unsigned char* data, int len);
    int DoPost(const CQSString& url, int id, const CQWString& recvFile, unsigned char* data, int len);
    // Multipart upload of filePath; data/len are the form fields
    // ("k=v&k2=v2"), second the form name of the file part.
    int DoPostFile(const CQSString& url, int id, const CQWString* recvFile, unsigned char* data, int len,
                   const CQWString& filePath, const CQWString& second);

    // ---- cancels: every busy engine whose request id is the class value
    // (or id) is cancelled; a cancelled request reports nothing.
    void CancelPageRequest();
    void CancelPrefechRequest();
    void CancelCssRequest();
    void CancelImgRequest();
    void CancelDownLoadRequest(int id);

    // ---- cookies
    // First holder wins: while cookies are enabled a second call changes
    // nothing. holder is not owned.
    void EnableCookie(QCookieHolder* holder);
    void DisableCookie();
    // Each line in list order to the holder for url; nothing without a holder.
    void SaveCookies(const CQSString& url, const CQList<CQSString*>& lines);

    // ---- the current page's engine: the first engine whose request id is
    // KIdPage, busy or not.
    // Its request kind, or KKindNone when there is no such engine.
    int GetCurMethod();
    // Its post data text (never filled by the engine: empty), or null.
    CQSString* GetCurPostData();

    // ---- read access
    int GetEngineCount() const { return m_nEngineCount; }
    // Engine index in array order; null outside 0..count-1.
    CMLHttpEngine* GetEngine(int index) const;
    MHttpPoolNotifier* GetNotifier() const { return m_pNotifier; }
    QCookieHolder* GetCookieHolder() const { return m_pCookieHolder; }
    bool IsCookieEnabled() const { return m_bCookieEnabled; }

private:
    CMLHttpPool(const CMLHttpPool&) = delete;
    CMLHttpPool& operator=(const CMLHttpPool&) = delete;

    // The engine that will carry a request for url, with its id set; null
    // (nothing changed) for an empty URL or when no engine is idle.
    [[nodiscard]] CMLHttpEngine* TakeEngine(const CQSString& url, int id);
    // Cancels every busy engine carrying id.
    void CancelById(int id);
    // The first engine carrying KIdPage, or null.
    [[nodiscard]] CMLHttpEngine* FindPageEngine() const;

    CMLHttpEngine** m_pEngines = nullptr;  // owned array of owned engines
    int m_nEngineCount = 0;
    MHttpPoolNotifier* m_pNotifier = nullptr;  // not owned
    QCookieHolder* m_pCookieHolder = nullptr;  // not owned
    bool m_bCookieEnabled = false;
};

#endif
