// CHttpData::GetResponseHead and every field parser over arbitrary bytes.
// Invariants: the parsers never write the buffer; a complete head ends with
// the blank line inside the input; a Set-Cookie line never holds a line end;
// a copy of the record holds the same cookie lines.

#include "fuzz/FuzzInput.h"
#include "src/HttpData.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const int len = static_cast<int>(size);
    auto buf = fuzzinput::Copy(data, size);
    CHttpData http;  // no cookie holder: SaveCookies does nothing

    CHttpResponseHead head;
    if (http.GetResponseHead(buf.get(), len, head) == CHttpData::KHeadComplete) {
        FUZZ_CHECK(head.m_nHeadLen >= 4 && head.m_nHeadLen <= len);
        FUZZ_CHECK(std::memcmp(buf.get() + head.m_nHeadLen - 4, "\r\n\r\n", 4) == 0);
    }
    for (POSITION pos = head.m_listCookies.GetHeadPosition(); pos;) {
        const CQSString* line = head.m_listCookies.GetNext(pos);
        FUZZ_CHECK(line && line->Find("\r\n") < 0);
    }
    CHttpResponseHead copy(head);
    FUZZ_CHECK(copy.m_listCookies.GetCount() == head.m_listCookies.GetCount());

    CHttpResponseHead fields;
    int n = 0;
    (void)CHttpData::GetContentLenght(buf.get(), len, n, fields);
    (void)CHttpData::GetContentRange(buf.get(), len, fields);
    (void)CHttpData::GetContentType(buf.get(), len, fields);
    (void)CHttpData::GetContentEncoding(buf.get(), len, fields);
    (void)CHttpData::GetCacheControl(buf.get(), len, fields);
    (void)CHttpData::GetContentAttachName(buf.get(), len, fields);
    (void)CHttpData::GetLocation(buf.get(), len, fields.m_strLocation);
    (void)CHttpData::GetCookie(buf.get(), len, fields);
    (void)CHttpData::GetContentData(buf.get(), len, fields);
    (void)CHttpData::GetContentExpireData(buf.get(), len, fields);
    (void)CHttpData::GetThisPageUrl(buf.get(), len, fields.m_strCurPageURL);
    (void)CHttpData::GetFileUrl(buf.get(), len, fields.m_strFileURL);
    CHttpData::GetOrignSize(buf.get(), len, fields.m_nOrigSize);
    CHttpData::GetStreamSize(buf.get(), len, fields.m_nStreamSize);
    CHttpData::GetIDVersion(buf.get(), len, fields.m_nIDVersion);
    FUZZ_CHECK(fields.m_listCookies.GetCount() == head.m_listCookies.GetCount() ||
               head.m_nStatusCode == 301 || head.m_nStatusCode == 302 || head.m_nHeadLen < 0);

    // The whole input as a Content-Type value.
    const CQSString type(reinterpret_cast<const char*>(buf.get()), len);
    int mainId = 0;
    int subId = 0;
    CHttpData::GetContentTypeID(&type, mainId, subId);
    CQSString charset;
    CHttpData::GetCharset(&type, charset);

    FUZZ_CHECK(std::memcmp(buf.get(), data, size) == 0);
    return 0;
}
