#include "src/HttpObserver.h"

// ---------------------------------------------------------- MHttpObserver

int MHttpObserver::OnHttpEngine_HttpError(int /*id*/, int /*status*/)
{
    return KStop;
}

int MHttpObserver::OnHttpEngine_Complete(int /*id*/, CQWString& /*recvFile*/)
{
    return KStop;
}

int MHttpObserver::OnHttpEngine_NetEvent(int /*id*/, int /*event*/)
{
    return KStop;
}

int MHttpObserver::OnHttpEngine_NetError(int /*id*/, int /*event*/)
{
    return KStop;
}

int MHttpObserver::OnHttpEngine_RecvHeader(int /*id*/, CHttpResponseHead& /*head*/)
{
    return KGoOn;
}

int MHttpObserver::OnHttpEngine_ResponseData(int /*id*/, unsigned char* /*data*/, int /*len*/, int /*n*/)
{
    return KGoOn;
}

int MHttpObserver::OnHttpEngine_URLChange(int /*id*/, CQSString& /*location*/)
{
    return KStop;
}

// ---------------------------------------------------------- MHttpNotifier

int MHttpNotifier::HttpEngine_URLChange(int /*id*/, CQSString& /*location*/)
{
    return MHttpObserver::KStop;
}

void MHttpNotifier::HttpNotifySend(unsigned char* /*data*/, int /*len*/)
{
}

// -------------------------------------------------- VelaHttpEngineAdapter

VelaHttpEngineAdapter::VelaHttpEngineAdapter(MHttpNotifier* notifier) : m_pNotifier(notifier)
{
}

VelaHttpEngineAdapter::~VelaHttpEngineAdapter()
{
    m_pNotifier = nullptr;
}

int VelaHttpEngineAdapter::OnHttpEngine_HttpError(int id, int status)
{
    if (!m_pNotifier)
        return KStop;
    return m_pNotifier->HttpErrorOccured(id, status);
}

int VelaHttpEngineAdapter::OnHttpEngine_Complete(int id, CQWString& recvFile)
{
    if (!m_pNotifier)
        return KStop;
    return m_pNotifier->HttpResponseComplete(id, recvFile);
}

int VelaHttpEngineAdapter::OnHttpEngine_NetEvent(int id, int event)
{
    if (!m_pNotifier)
        return KStop;
    return m_pNotifier->HttpEventNotify(id, event);
}

int VelaHttpEngineAdapter::OnHttpEngine_NetError(int id, int event)
{
    if (!m_pNotifier)
        return KStop;
    return m_pNotifier->HttpErrorNotify(id, event);
}

int VelaHttpEngineAdapter::OnHttpEngine_RecvHeader(int id, CHttpResponseHead& head)
{
    if (!m_pNotifier)
        return KStop;
    // A fresh request record for this one report: empty URL, default lines.
    CHttpData data;
    return m_pNotifier->HttpHeaderReceived(id, head, data);
}

int VelaHttpEngineAdapter::OnHttpEngine_ResponseData(int id, unsigned char* data, int len, int n)
{
    if (m_pNotifier)
        m_pNotifier->HttpResponseReceived(id, data, len, n);
    // The notifier's answer is not passed on: data never stops a transfer.
    return KGoOn;
}

int VelaHttpEngineAdapter::OnHttpEngine_URLChange(int id, CQSString& location)
{
    if (!m_pNotifier)
        return KStop;
    return m_pNotifier->HttpEngine_URLChange(id, location);
}

void VelaHttpEngineAdapter::HttpNotifySend(unsigned char* data, int len)
{
    if (m_pNotifier)
        m_pNotifier->HttpNotifySend(data, len);
}
