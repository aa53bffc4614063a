#ifndef VELANET_MLHTTPENGINE_H
#define VELANET_MLHTTPENGINE_H

// CMLHttpEngine carries one HTTP request at a time, from the caller's call
// to the end of the response. It owns one CQHttpSocketEngine (lookup,
// connection, raw bytes) and observes it; it builds the request with
// CHttpData, parses the response head, reads the body (by length, chunked
// or until the connection closes, gunzipping where the head says gzip),
// follows redirects itself, asks an HTTP gateway for the address of a host
// that does not resolve, and reports everything through one MHttpObserver.
// With a proxy set (CProxyConfig), an http request goes to the proxy with
// the whole URL as its target and an https request through the proxy's
// CONNECT tunnel; a refused tunnel is an HTTP error with the proxy's status.
//
// The request state (m_enCurHES), the response phase and the body mode are
// drawn together at the top of src/MLHttpEngine.cpp.
//
// Reports are synchronous and the observer may start the next request on
// this engine from inside a report; a generation counter, bumped by every
// Reset, tells a reader loop that its request is gone.
//
// Every request an owner starts ends in exactly one terminal report
// (OnHttpEngine_Complete, OnHttpEngine_HttpError or OnHttpEngine_NetError),
// or in the owner's own cancel, which reports nothing.

#include "BaseClass/src/CMLDataBuf.h"
#include "BaseClass/src/CQFile.h"
#include "BaseClass/src/CQString.h"
#include "src/CQHttpSocketEngine.h"
#include "src/GzipUtil.h"
#include "src/HttpData.h"
#include "src/HttpObserver.h"
#include "src/NetConstants.h"
#include "src/ProxyConfig.h"
#include "src/RequestHeaderUnit.h"

#include <memory>

class CIAPConnectEngine;
class CQTimerObserver;
class QCookieHolder;

class CMLHttpEngine : public MSocketEngineObserver
{
public:
    // Request state: the diagram at the top of src/MLHttpEngine.cpp.
    enum enHttpEngineState : int
    {
        HES_Idle = 0,         // no exchange has chosen its target; ConnectServer moves to 1
        HES_HttpRequest = 1,  // the caller's request is under way; event 36 moves to 2
        HES_DNSRequest = 2,   // the gateway is asked for the host; reply end to 1, failure to 0
    };

    // Body reader, chosen from the head's framing.
    enum enHttpRecvDataMode : int
    {
        HRDM_Length = 10,  // Content-Length given: counted, completion tested after each piece
        HRDM_Chunk = 11,   // chunked: the zero-size chunk ends the body
        HRDM_Stream = 12,  // neither: the connection closing ends the body
    };

    // Where the next received byte belongs.
    enum enResponsePhase : int
    {
        HRP_Head = 0,  // collecting the head in the receive buffer; a judged head moves to HRP_Body
        HRP_Body = 1,  // reading the body by m_enHttpRecvDataMode; its end resets (to HRP_Head)
        HRP_Done = 2,  // a gzip stream ended: complete, nothing more is read until Reset
    };

    // The head's content length once the body is chunked or ends with the
    // connection (a mark, not a length).
    static constexpr int KUnframedContentLength = 100;

    // Results of the receive and send steps (go on / stop) and of the
    // other calls (done / refused).
    enum
    {
        KStop = 0,
        KGoOn = 1,
        KRefused = 0,
        KDone = 1,
    };

    // Status of the socket engine when it is idle.
    static constexpr int KSocketIdle = CQHttpSocketEngine::HSES_Idle;
    // GetHttpSocketCurrentStatus without a socket engine.
    static constexpr int KNoSocketEngine = -1;

    // Status ranges of the head decisions.
    static constexpr int KFirstAccepted = 200;
    static constexpr int KLastAccepted = 206;
    static constexpr int KFirstRedirect = 300;
    static constexpr int KLastRedirect = 307;

    // The gateway base URL until SetDNSGatewayURL changes it.
    static constexpr char KDefaultDNSGatewayURL[] = "http://127.0.0.1:8053/";

    // ---- construction
    // NewLC and NewL: constructor, then Construct. NewL(notifier) also
    // creates the engine's own adapter over notifier and reports through it.
    static CMLHttpEngine* NewL();
    static CMLHttpEngine* NewLC();
    static CMLHttpEngine* NewL(MHttpNotifier* notifier);
    // An engine without a socket engine until Construct runs: every request
    // returns 0 and every socket event is ignored then.
    CMLHttpEngine();
    // Creates the socket engine (fatal assertion when that fails) and the
    // two buffers; back to the initial counters and states.
    void Construct();
    ~CMLHttpEngine() override;

    // ---- MSocketEngineObserver
    void OnSocketEngine_SocketEvent(int event, int param) override;
    int OnSocketEngine_ReceiveData(unsigned char* data, int len) override;
    int OnSocketEngine_SendData(unsigned char* data, int len) override;
    int OnSocketEngine_ReceivDataEnd() override;
    unsigned char* OnSocketEngine_GetMoreSendData(int offset, int& len) override;
    // The proxy refused the tunnel of an https request: an HTTP error with
    // the proxy's status (407 when it wants credentials).
    void OnSocketEngine_TunnelRefused(int status) override;

    // ---- requests: nonzero when the connection attempt was started
    // recvFile: write the body there as well (null: memory only); offset:
    // the resume offset of a range request, -1 for the whole resource.
    int DoGet(const char* url, const CQWString* recvFile, int offset);
    // DoGet from a 64-bit offset (-1: the whole resource), for resources
    // past 2 GiB: "Range: bytes=2684354560-".
    int DoGet64(const char* url, const CQWString* recvFile, long long offset);
    // A range request from byte 0, always; 1 or 0.
    int DoGet(const CQSString& url, const CQWString& recvFile);
    int DoPost(const char* url, const CQWString* recvFile, unsigned char* body, int len);
    int DoPost(const char* url, const CQWString& recvFile, unsigned char* body, int len);
    // Multipart upload of filePath; data/len are the form fields
    // ("k=v&k2=v2"), fieldName the form name of the file part.
    int DoPostFile(const char* url, const CQWString* recvFile, unsigned char* data, int len,
                   const CQWString& filePath, const CQWString& fieldName);
    // Resumable upload of filePath to host (may carry ":port") with key.
    // 0 without doing anything when blocks of blockSize bytes would not fit
    // the socket engine's block buffer beside their request text.
    int DoPostOLFile(const char* host, char* key, int keyLen, const CQWString& filePath, unsigned int blockSize);

    // The argument is not used: the target follows from the state.
    int ConnectServer(const char* url);
    // Disconnects and clears the per-response state; deleteFile also
    // deletes a receive file of this request.
    void Reset(bool deleteFile);
    // Reset(true); 1.
    int CancelRequest();
    bool IsIdle() const;
    int GetHttpSocketCurrentStatus() const;

    // ---- configuration
    void SetIap(CIAPConnectEngine* iap);
    // Accepted and ignored.
    void SetPriority(velanet::enRequestPriority priority);
    void SetUserAgent(CQSString& userAgent, CQSString& vua, CQSString& extra);
    void SetCookieHold(QCookieHolder* holder);
    void DisableCookie();
    int DoClearSendInfo();
    void DoStopOLFileTimer();
    void SetOLFileTimerObserver(CQTimerObserver* observer);
    // The traffic hook: does nothing.
    void ReportFlux(int length, int second);

    // The id carried by every report of the next requests.
    void SetRequestID(int id) { m_nRequestID = id; }
    int GetRequestID() const { return m_nRequestID; }
    // Who hears the reports (not owned; null: nothing is reported).
    void SetObserver(MHttpObserver* observer) { m_pObserver = observer; }
    MHttpObserver* GetObserver() const { return m_pObserver; }

    // Most redirects one request follows; the next 3xx is reported with
    // OnHttpEngine_URLChange and then ends the request with
    // OnHttpEngine_NetError(id, velanet::KErrorTooManyRedirects). Each
    // request an owner starts counts from 0 (the engine's own follows do
    // not restart the count). For every engine of the process; a negative
    // count is taken as 0. Default KDefaultMaxRedirects.
    static void SetMaxRedirects(int count);
    static int GetMaxRedirects();
    static constexpr int KDefaultMaxRedirects = 20;

    // Base URL of the DNS gateway ("http://" address ":" port "/"); the
    // host name is appended to it. Null is ignored.
    static void SetDNSGatewayURL(const char* url);
    static const CQSString& GetDNSGatewayURL();

    // ---- steps of an exchange, public for the owner and for tests
    void SendMsg_Get();
    void SendMsg_Post();
    void SendMsg_PostFile();
    void SendMsg_PostOLFile();
    int OnReceivChunkData();
    int OnReceivStreamData(unsigned char* data, int len);
    int DecompressAndNotify(unsigned char* data, int len);
    int DoFilterDecompress(unsigned char* in, int& inLen, unsigned char* out, int& outLen);
    int OpenFile2Recv();
    int SaveRecvData(unsigned char* data, int len);
    void StartGetDNSThroughProxy();
    void ParseDNSPDUAndStore(unsigned char* data, int len);

    // ---- read access for the owner
    CQHttpSocketEngine* GetSocketEngine() const { return m_pSocketEngine; }
    enHttpEngineState GetState() const { return m_enCurHES; }
    int GetCurMethod() const { return m_nCurKind; }
    // Body bytes received so far in this response, in 64 bits. The n that
    // OnHttpEngine_ResponseData carries in length mode is this count,
    // saturated at 2147483647 (CHttpResponseHead::KIntSaturated).
    long long GetRecvBytes64() const { return m_nRecvBytes; }
    CQSString& GetCurPostData() { return m_strCurPostData; }

private:
    // Unit tests check the per-response state after each step, which no
    // report shows.
    friend class CMLHttpEngineTestPeer;

    CMLHttpEngine(const CMLHttpEngine&) = delete;
    CMLHttpEngine& operator=(const CMLHttpEngine&) = delete;

    // ---- request state
    // The only writer of m_enCurHES: every move of the diagram goes here.
    void MoveTo(enHttpEngineState next);
    // Receive-file path from recvFile (null: none), as every request sets it.
    void SetRecvFile(const CQWString* recvFile);
    // Who starts a request: the owner, or the engine following a redirect.
    enum enStartedBy : int
    {
        SB_Owner,     // a Do* call: the redirect count starts from 0
        SB_Redirect,  // FollowRedirect: one more redirect for the owner's request
    };
    // What every request start does before storing its own fields.
    void BeginRequest(int kind, enStartedBy startedBy);
    // DoGet's work; the redirect path starts with SB_Redirect.
    int StartGet(const char* url, const CQWString* recvFile, long long offset, enStartedBy startedBy);
    // Event handlers of OnSocketEngine_SocketEvent.
    void OnConnected();
    void OnHostNotResolvable();
    // Length of the file to upload, or -1 after raising the silent event
    // for an empty path, an unreadable file or one longer than maxLength.
    long long UploadFileLength(const CQWString& path, long long maxLength);

    // ---- receiving, one step each (OnSocketEngine_ReceiveData)
    // Appends bytes to the head and parses it; KGoOn with a parsed head,
    // KWaitForMore while it is incomplete, KStop when the request ended.
    [[nodiscard]] int CollectHead(unsigned char* data, int len);
    // Head decisions once the head is parsed; KGoOn: read the body.
    [[nodiscard]] int JudgeStatus();
    // A 3xx: report the location and follow it on this engine.
    void FollowRedirect();
    // A redirect that is not followed ends the request: the receive file
    // (when there was one) is deleted, then net error code.
    void FailRedirect(int code, const CQWString& recvFile, bool recvToFile);
    // An interim (1xx) head that is skipped: every 1xx but 101.
    [[nodiscard]] static bool IsInterim(int status);
    // A Content-Length the head could not read: the request fails with
    // KErrorLengthUnrepresentable; KGoOn otherwise.
    [[nodiscard]] int RefuseUnreadableLength();
    // Body mode from the head's framing; the phase moves to HRP_Body.
    void ChooseBodyMode();
    // OnHttpEngine_RecvHeader (caller's request only); KGoOn to read on.
    [[nodiscard]] int ReportHead();
    // The body bytes that came with the head, read from the receive buffer.
    [[nodiscard]] int ReadBodyAfterHead();
    // Body bytes to the reader of the body mode; buffered: they already sit
    // at the start of the receive buffer.
    [[nodiscard]] int ReadBody(unsigned char* data, int len, bool buffered);
    // Content-Length body: one piece (mode 10).
    [[nodiscard]] int OnReceivLengthData(unsigned char* data, int len);
    // Content-Length reached: finish the request or retry after the gateway.
    [[nodiscard]] int CompleteLengthBody();
    // A body that ended with its last chunk or with the connection: reset,
    // idle, and the completion report.
    void CompleteAtEnd();
    // Chunk and stream readers: n body bytes at p to file and observer.
    [[nodiscard]] int DeliverBody(unsigned char* p, int n, int callCount);
    // ResponseData report; a 0 answer stops the request quietly.
    [[nodiscard]] int ReportResponseData(unsigned char* p, int n, int count);
    // A report changed the request under way (new exchange, cancel).
    [[nodiscard]] bool RequestGone(unsigned int generation) const { return generation != m_nGeneration; }

    // Proxy (see CProxyConfig). Points the socket engine at target: its own
    // host, the proxy with the whole URL as request target (http), or the
    // origin through the proxy's tunnel (https). Only the caller's own
    // requests may use a proxy, never the gateway or a resumable upload.
    void SetServerFor(CHttpData& target, bool mayUseProxy);
    // Whether the request line carries the whole URL (a proxy's http request).
    bool AbsoluteTarget() const { return m_ProxyRoute.viaProxy && !m_bProxyTunnel; }
    // Built request bytes as a proxy gets them: with the credentials line
    // when the request goes to the proxy itself. Takes bytes (new[]) and
    // returns what replaces it; len follows.
    unsigned char* WithProxyCredentials(unsigned char* bytes, int& len) const;

    CQHttpSocketEngine* m_pSocketEngine = nullptr;  // owned
    MHttpObserver* m_pObserver = nullptr;           // not owned through this field
    VelaHttpEngineAdapter* m_pAdapter = nullptr;    // owned
    int m_nRequestID = 0;
    int m_nMultipart = 0;
    CHttpData m_RequestData;
    CHttpData m_DNSRequestData;
    CHttpResponseHead m_ResponseHead;
    int m_nRequestedKind = velanet::KKindNone;
    int m_nCurKind = velanet::KKindNone;
    std::unique_ptr<CMLDataBuf> m_pRecvBuf;
    std::unique_ptr<CMLDataBuf> m_pDecompressBuf;
    enResponsePhase m_enPhase = HRP_Head;
    long long m_nRecvBytes = 0;
    int m_nDataCallCount = 0;
    // Bytes of the current chunk's data still to come; 0: the next bytes
    // start with a chunk-size line (after the previous data's line end).
    int m_nChunkRemain = 0;
    CQSString m_strCurPostData;
    enHttpEngineState m_enCurHES = HES_Idle;
    enHttpRecvDataMode m_enHttpRecvDataMode = HRDM_Length;
    CQPostOLFileHeaderUnit m_OLFileHeaderUnit;
    CQPostFileHeaderUnit m_PostFileHeaderUnit;
    CQRequestHeaderUnit m_RequestHeaderUnit;
    CQFile m_RecvFile;
    bool m_bRecvToFile = false;
    CQWString m_strRecvFilePath;
    TGzipUtil m_GzipUtil;
    int m_nFilterState = 0;
    // Gateway lookups this request may still make (one per request).
    int m_nGatewayAttemptsLeft = 0;
    // Redirects followed since the owner started the request.
    int m_nRedirectsFollowed = 0;
    // The route of the current exchange (no proxy unless one is set).
    CProxyConfig::Route m_ProxyRoute;
    bool m_bProxyTunnel = false;
    // Bumped by every Reset: a reader that sees it change after a report
    // leaves the engine alone.
    unsigned int m_nGeneration = 0;
};

#endif
