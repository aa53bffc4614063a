// The engine's report interfaces and the adapter that forwards engine
// reports to a notifier: order, arguments and results of every call.

#include "src/HttpObserver.h"

#include "support/HeapWatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

// Readable failure messages for the records passed through.
void PrintTo(const CQSString& s, std::ostream* os)
{
    *os << '"' << s.GetDataPtr() << '"';
}

void PrintTo(const CQWString& s, std::ostream* os)
{
    *os << "L\"" << CQSString(s).GetDataPtr() << '"';
}

void PrintTo(const CHttpData& data, std::ostream* os)
{
    *os << "CHttpData{url=\"" << data.GetURL().GetDataPtr() << "\"}";
}

void PrintTo(const CHttpResponseHead& head, std::ostream* os)
{
    *os << "CHttpResponseHead{headLen=" << head.m_nHeadLen << ", status=" << head.m_nStatusCode
        << ", contentLength=" << head.m_nContentLength << ", bodyType=" << head.m_nBodyType << ", location=\""
        << head.m_strLocation.GetDataPtr() << "\", contentEncoding=" << head.m_nContentEncoding << "}";
}

namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::Ref;
using ::testing::Return;
using ::testing::StrictMock;

// Records every notifier call; the expectations fix their order.
class RecordingNotifier : public MHttpNotifier
{
public:
    MOCK_METHOD(int, HttpErrorOccured, (int id, int status), (override));
    MOCK_METHOD(int, HttpHeaderReceived, (int id, CHttpResponseHead& head, CHttpData& data), (override));
    MOCK_METHOD(int, HttpResponseReceived, (int id, unsigned char* data, int len, int n), (override));
    MOCK_METHOD(int, HttpResponseComplete, (int id, CQWString& recvFile), (override));
    MOCK_METHOD(int, HttpEventNotify, (int id, int event), (override));
    MOCK_METHOD(int, HttpErrorNotify, (int id, int event), (override));
    MOCK_METHOD(int, HttpEngine_URLChange, (int id, CQSString& location), (override));
    MOCK_METHOD(void, HttpNotifySend, (unsigned char* data, int len), (override));
};

// Implements only what must be implemented.
class MinimalNotifier : public MHttpNotifier
{
public:
    int HttpErrorOccured(int, int) override { return 0; }
    int HttpHeaderReceived(int, CHttpResponseHead&, CHttpData&) override { return 0; }
    int HttpResponseReceived(int, unsigned char*, int, int) override { return 0; }
    int HttpResponseComplete(int, CQWString&) override { return 0; }
    int HttpEventNotify(int, int) override { return 0; }
    int HttpErrorNotify(int, int) override { return 0; }
};

// Overrides nothing.
class DefaultObserver : public MHttpObserver
{
};

const int KId = 0x2A;

// ------------------------------------------------------------ the adapter

TEST(HttpObserverTest, AdapterForwardsEveryReportInOrderWithItsArguments)
{
    StrictMock<RecordingNotifier> notifier;
    VelaHttpEngineAdapter adapter(&notifier);
    MHttpObserver& observer = adapter;  // the engine calls through this type

    CHttpResponseHead head;
    head.m_nStatusCode = 200;
    unsigned char body[5] = {'h', 'e', 'l', 'l', 'o'};
    unsigned char sent[9] = {'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T'};
    CQWString recvFile(L"/tmp/recv.bin");
    CQSString location("http://example.test/next");

    {
        InSequence order;
        EXPECT_CALL(notifier, HttpEventNotify(KId, 38)).WillOnce(Return(11));
        EXPECT_CALL(notifier, HttpEventNotify(KId, 32)).WillOnce(Return(12));
        EXPECT_CALL(notifier, HttpNotifySend(sent, 9));
        EXPECT_CALL(notifier, HttpHeaderReceived(KId, Ref(head), _)).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseReceived(KId, body, 5, 3)).WillOnce(Return(1));
        EXPECT_CALL(notifier, HttpResponseComplete(KId, Ref(recvFile))).WillOnce(Return(13));
        EXPECT_CALL(notifier, HttpErrorNotify(KId, 34)).WillOnce(Return(14));
        EXPECT_CALL(notifier, HttpErrorOccured(KId, 404)).WillOnce(Return(15));
        EXPECT_CALL(notifier, HttpEngine_URLChange(KId, Ref(location))).WillOnce(Return(16));
    }

    EXPECT_EQ(observer.OnHttpEngine_NetEvent(KId, 38), 11);
    EXPECT_EQ(observer.OnHttpEngine_NetEvent(KId, 32), 12);
    adapter.HttpNotifySend(sent, 9);
    EXPECT_EQ(observer.OnHttpEngine_RecvHeader(KId, head), 1);
    EXPECT_EQ(observer.OnHttpEngine_ResponseData(KId, body, 5, 3), 1);
    EXPECT_EQ(observer.OnHttpEngine_Complete(KId, recvFile), 13);
    EXPECT_EQ(observer.OnHttpEngine_NetError(KId, 34), 14);
    EXPECT_EQ(observer.OnHttpEngine_HttpError(KId, 404), 15);
    EXPECT_EQ(observer.OnHttpEngine_URLChange(KId, location), 16);
}

TEST(HttpObserverTest, AdapterPassesArgumentsUnchangedForAnyValue)
{
    StrictMock<RecordingNotifier> notifier;
    VelaHttpEngineAdapter adapter(&notifier);
    const int pageId = static_cast<int>(0xF0000000u);
    unsigned char* noData = nullptr;
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpErrorOccured(pageId, -1)).WillOnce(Return(-1));
        EXPECT_CALL(notifier, HttpResponseReceived(pageId, noData, 0, -7)).WillOnce(Return(0));
        EXPECT_CALL(notifier, HttpEventNotify(0, 48)).WillOnce(Return(0));
        EXPECT_CALL(notifier, HttpNotifySend(noData, -3));
    }
    EXPECT_EQ(adapter.OnHttpEngine_HttpError(pageId, -1), -1);
    EXPECT_EQ(adapter.OnHttpEngine_ResponseData(pageId, noData, 0, -7), 1);
    EXPECT_EQ(adapter.OnHttpEngine_NetEvent(0, 48), 0);
    adapter.HttpNotifySend(noData, -3);
}

TEST(HttpObserverTest, ResponseDataResultOfTheNotifierIsIgnored)
{
    StrictMock<RecordingNotifier> notifier;
    VelaHttpEngineAdapter adapter(&notifier);
    unsigned char byte = 'x';
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpResponseReceived(KId, &byte, 1, 1)).WillOnce(Return(0));
        EXPECT_CALL(notifier, HttpResponseReceived(KId, &byte, 1, 2)).WillOnce(Return(-1));
        EXPECT_CALL(notifier, HttpResponseReceived(KId, &byte, 1, 3)).WillOnce(Return(7));
    }
    EXPECT_EQ(adapter.OnHttpEngine_ResponseData(KId, &byte, 1, 1), 1);
    EXPECT_EQ(adapter.OnHttpEngine_ResponseData(KId, &byte, 1, 2), 1);
    EXPECT_EQ(adapter.OnHttpEngine_ResponseData(KId, &byte, 1, 3), 1);
}

TEST(HttpObserverTest, HeaderResultOfTheNotifierIsGivenBack)
{
    StrictMock<RecordingNotifier> notifier;
    VelaHttpEngineAdapter adapter(&notifier);
    CHttpResponseHead head;
    {
        InSequence order;
        EXPECT_CALL(notifier, HttpHeaderReceived(KId, Ref(head), _)).WillOnce(Return(0));
        EXPECT_CALL(notifier, HttpHeaderReceived(KId, Ref(head), _)).WillOnce(Return(1));
    }
    EXPECT_EQ(adapter.OnHttpEngine_RecvHeader(KId, head), 0);
    EXPECT_EQ(adapter.OnHttpEngine_RecvHeader(KId, head), 1);
}

TEST(HttpObserverTest, HeaderReceivedSeesAFreshCHttpDataWithAnEmptyURL)
{
    StrictMock<RecordingNotifier> notifier;
    VelaHttpEngineAdapter adapter(&notifier);
    CHttpResponseHead head;
    const CHttpData reference;
    int calls = 0;
    auto check = [&](int, CHttpResponseHead&, CHttpData& data) {
        ++calls;
        EXPECT_TRUE(data.GetURL().IsEmpty()) << "call " << calls;
        EXPECT_EQ(data.GetCookiePointer(), nullptr);
        EXPECT_STREQ(data.GetUserAgent().GetDataPtr(), const_cast<CHttpData&>(reference).GetUserAgent().GetDataPtr());
        EXPECT_STREQ(data.GetVUserAgent().GetDataPtr(),
                     const_cast<CHttpData&>(reference).GetVUserAgent().GetDataPtr());
        // Whatever a notifier does to it does not reach the next report.
        data.SetURL("http://changed.test/");
        return 1;
    };
    EXPECT_CALL(notifier, HttpHeaderReceived(KId, Ref(head), _)).Times(3).WillRepeatedly(Invoke(check));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(adapter.OnHttpEngine_RecvHeader(KId, head), 1);
    EXPECT_EQ(calls, 3);
}

TEST(HttpObserverTest, NullNotifierStopsEveryRequestAtTheHead)
{
    VelaHttpEngineAdapter adapter(nullptr);
    CHttpResponseHead head;
    EXPECT_EQ(adapter.OnHttpEngine_RecvHeader(KId, head), 0);
}

TEST(HttpObserverTest, NullNotifierAnswersZeroExceptForResponseData)
{
    VelaHttpEngineAdapter adapter(nullptr);
    EXPECT_EQ(adapter.m_pNotifier, nullptr);
    CQWString file(L"f");
    CQSString location("l");
    unsigned char byte = 0;
    EXPECT_EQ(adapter.OnHttpEngine_HttpError(KId, 500), 0);
    EXPECT_EQ(adapter.OnHttpEngine_Complete(KId, file), 0);
    EXPECT_EQ(adapter.OnHttpEngine_NetEvent(KId, 37), 0);
    EXPECT_EQ(adapter.OnHttpEngine_NetError(KId, 34), 0);
    EXPECT_EQ(adapter.OnHttpEngine_ResponseData(KId, &byte, 1, 1), 1);
    EXPECT_EQ(adapter.OnHttpEngine_URLChange(KId, location), 0);
    adapter.HttpNotifySend(&byte, 1);
}

TEST(HttpObserverTest, AdapterKeepsTheNotifierItWasGiven)
{
    StrictMock<RecordingNotifier> notifier;
    VelaHttpEngineAdapter adapter(&notifier);
    EXPECT_EQ(adapter.m_pNotifier, &notifier);
}

TEST(HttpObserverTest, AdapterDeletedThroughItsOwnTypeLeavesTheNotifierAlone)
{
    StrictMock<RecordingNotifier> notifier;
    velatest::HeapWatch::Clear();
    auto* adapter = new VelaHttpEngineAdapter(&notifier);
    velatest::HeapWatch::Watch(adapter);
    delete adapter;
    EXPECT_TRUE(velatest::HeapWatch::Freed(adapter));
    EXPECT_TRUE(::testing::Mock::VerifyAndClearExpectations(&notifier));  // no call reached it
}

// ------------------------------------------------------------ the defaults

TEST(HttpObserverTest, ObserverDefaultsDoNothingAndLetDataGoOn)
{
    DefaultObserver concrete;
    MHttpObserver& observer = concrete;
    CHttpResponseHead head;
    head.m_nStatusCode = 404;
    CQWString file(L"f");
    CQSString location("l");
    unsigned char byte = 0;
    EXPECT_EQ(observer.OnHttpEngine_HttpError(KId, 404), 0);
    EXPECT_EQ(observer.OnHttpEngine_Complete(KId, file), 0);
    EXPECT_EQ(observer.OnHttpEngine_NetEvent(KId, 38), 0);
    EXPECT_EQ(observer.OnHttpEngine_NetError(KId, 34), 0);
    EXPECT_EQ(observer.OnHttpEngine_RecvHeader(KId, head), 1);
    EXPECT_EQ(observer.OnHttpEngine_ResponseData(KId, &byte, 1, 1), 1);
    EXPECT_EQ(observer.OnHttpEngine_URLChange(KId, location), 0);
    // The arguments are left as they were.
    EXPECT_STREQ(location.GetDataPtr(), "l");
    EXPECT_EQ(head.m_nStatusCode, 404);
}

TEST(HttpObserverTest, PlainObserverIsAListenerThatIgnoresEverything)
{
    MHttpObserver observer;
    CHttpResponseHead head;
    CQWString file(L"f");
    CQSString location("l");
    unsigned char byte = 0;
    EXPECT_EQ(observer.OnHttpEngine_HttpError(KId, 500), 0);
    EXPECT_EQ(observer.OnHttpEngine_Complete(KId, file), 0);
    EXPECT_EQ(observer.OnHttpEngine_NetEvent(KId, 32), 0);
    EXPECT_EQ(observer.OnHttpEngine_NetError(KId, 34), 0);
    EXPECT_EQ(observer.OnHttpEngine_RecvHeader(KId, head), 1);
    EXPECT_EQ(observer.OnHttpEngine_ResponseData(KId, &byte, 1, 1), 1);
    EXPECT_EQ(observer.OnHttpEngine_URLChange(KId, location), 0);
}

TEST(HttpObserverTest, NotifierDefaultsForURLChangeAndSendDoNothing)
{
    MinimalNotifier concrete;
    MHttpNotifier& notifier = concrete;
    CQSString location("http://a.test/");
    unsigned char bytes[3] = {1, 2, 3};
    EXPECT_EQ(notifier.HttpEngine_URLChange(KId, location), 0);
    notifier.HttpNotifySend(bytes, 3);
    EXPECT_STREQ(location.GetDataPtr(), "http://a.test/");
    EXPECT_EQ(bytes[0], 1);
}

TEST(HttpObserverTest, AdapterOverMinimalNotifierUsesTheNotifierDefaults)
{
    MinimalNotifier notifier;
    VelaHttpEngineAdapter adapter(&notifier);
    CQSString location("x");
    unsigned char byte = 0;
    EXPECT_EQ(adapter.OnHttpEngine_URLChange(KId, location), 0);
    adapter.HttpNotifySend(&byte, 1);
}

}  // namespace
