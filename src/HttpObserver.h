#ifndef VELANET_HTTPOBSERVER_H
#define VELANET_HTTPOBSERVER_H

// The two report interfaces of the HTTP engine and the adapter between them.
//
// CMLHttpEngine reports through MHttpObserver; the owners of engines (above
// all the pool) listen through MHttpNotifier. VelaHttpEngineAdapter, owned by
// each engine made with a notifier, turns every observer call into the
// matching notifier call. The first argument of every call is the request id.
// Neither interface owns or is owned through these pointers, so neither has
// a virtual destructor; nobody deletes through them (MHttpNotifier's
// destructor is protected to enforce it).

#include "BaseClass/src/CQString.h"
#include "src/HttpData.h"

// What the engine reports. Every operation has a default, so a listener
// overrides only the calls it needs. Results: 1 go on, 0 stop (only
// OnHttpEngine_RecvHeader and OnHttpEngine_ResponseData are acted upon).
class MHttpObserver
{
public:
    // Defaults: the "does nothing" calls answer 0, the two data calls 1.
    enum
    {
        KStop = 0,
        KGoOn = 1,
    };

    virtual int OnHttpEngine_HttpError(int id, int status);
    virtual int OnHttpEngine_Complete(int id, CQWString& recvFile);
    virtual int OnHttpEngine_NetEvent(int id, int event);
    virtual int OnHttpEngine_NetError(int id, int event);
    virtual int OnHttpEngine_RecvHeader(int id, CHttpResponseHead& head);
    virtual int OnHttpEngine_ResponseData(int id, unsigned char* data, int len, int n);
    virtual int OnHttpEngine_URLChange(int id, CQSString& location);

    // Public: with every call defaulted, a plain MHttpObserver is a usable
    // listener that ignores everything.
    MHttpObserver() = default;
    MHttpObserver(const MHttpObserver&) = default;
    MHttpObserver& operator=(const MHttpObserver&) = default;
    ~MHttpObserver() = default;
};

// What an owner of engines hears. The first six are pure; the last two do
// nothing unless overridden.
class MHttpNotifier
{
public:
    virtual int HttpErrorOccured(int id, int status) = 0;
    virtual int HttpHeaderReceived(int id, CHttpResponseHead& head, CHttpData& data) = 0;
    virtual int HttpResponseReceived(int id, unsigned char* data, int len, int n) = 0;
    virtual int HttpResponseComplete(int id, CQWString& recvFile) = 0;
    virtual int HttpEventNotify(int id, int event) = 0;
    virtual int HttpErrorNotify(int id, int event) = 0;
    // Default: nothing, result 0.
    virtual int HttpEngine_URLChange(int id, CQSString& location);
    // Default: nothing.
    virtual void HttpNotifySend(unsigned char* data, int len);

protected:
    MHttpNotifier() = default;
    MHttpNotifier(const MHttpNotifier&) = default;
    MHttpNotifier& operator=(const MHttpNotifier&) = default;
    ~MHttpNotifier() = default;
};

// Forwards every engine report to a notifier (not owned; may be null, and
// then every call does nothing and answers 0, except response data, 1).
//
// Kept as the engine depends on it: the result of HttpResponseReceived is
// ignored (a notifier can stop a transfer only at the head), and the head
// goes out with a CHttpData made fresh for that one call, whose URL is empty.
class VelaHttpEngineAdapter : public MHttpObserver
{
public:
    explicit VelaHttpEngineAdapter(MHttpNotifier* notifier);

    int OnHttpEngine_HttpError(int id, int status) override;
    int OnHttpEngine_Complete(int id, CQWString& recvFile) override;
    int OnHttpEngine_NetEvent(int id, int event) override;
    int OnHttpEngine_NetError(int id, int event) override;
    int OnHttpEngine_RecvHeader(int id, CHttpResponseHead& head) override;
    int OnHttpEngine_ResponseData(int id, unsigned char* data, int len, int n) override;
    int OnHttpEngine_URLChange(int id, CQSString& location) override;
    // Clears the notifier pointer.
    virtual ~VelaHttpEngineAdapter();

    // Bytes handed to the socket; passed on as they are.
    void HttpNotifySend(unsigned char* data, int len);

    MHttpNotifier* m_pNotifier;  // not owned

private:
    VelaHttpEngineAdapter(const VelaHttpEngineAdapter&) = delete;
    VelaHttpEngineAdapter& operator=(const VelaHttpEngineAdapter&) = delete;
};

#endif
