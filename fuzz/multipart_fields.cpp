// The multipart form-field splitter of CHttpData over arbitrary form-field
// text (also used as the file path and field name of the upload).
// Invariants: both passes of every writer agree (the written block is
// exactly sized); the trailer is "\r\n", the parts, the closing delimiter;
// the Content-Length of the upload head counts the file part head, the file
// and the trailer.

#include "fuzz/FuzzInput.h"
#include "src/HttpData.h"
#include "src/RequestHeaderUnit.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::string KClosing = "--7d92bf36e1196--";
    const CQSString fields(reinterpret_cast<const char*>(data), static_cast<int>(size));
    CHttpData http;
    http.SetURL("http://srv.test/up");

    const int parts = http.CopyHttpHeader_PostFile_AllFileInfo(fields, nullptr);
    FUZZ_CHECK(parts >= 0);
    std::unique_ptr<unsigned char[]> block(new unsigned char[parts ? parts : 1]);
    FUZZ_CHECK(http.CopyHttpHeader_PostFile_AllFileInfo(fields, block.get()) == parts);

    const std::size_t half = size / 2;
    const CQSString key(reinterpret_cast<const char*>(data), static_cast<int>(half));
    const CQSString value(reinterpret_cast<const char*>(data + half), static_cast<int>(size - half));
    const int one = http.CopyHttpHeader_PostFile_FileInfo(key, value, nullptr);
    std::unique_ptr<unsigned char[]> part(new unsigned char[one > 0 ? one : 1]);
    FUZZ_CHECK(http.CopyHttpHeader_PostFile_FileInfo(key, value, part.get()) == one);

    int len = 0;
    std::unique_ptr<unsigned char[]> trailer(http.GetPostFileInfoData(fields, len));
    FUZZ_CHECK(trailer && len == 2 + parts + static_cast<int>(KClosing.size()));
    FUZZ_CHECK(std::memcmp(trailer.get(), "\r\n", 2) == 0);
    FUZZ_CHECK(std::memcmp(trailer.get() + 2, block.get(), static_cast<std::size_t>(parts)) == 0);
    FUZZ_CHECK(std::memcmp(trailer.get() + 2 + parts, KClosing.data(), KClosing.size()) == 0);

    CQPostFileHeaderUnit unit;
    unit.m_strData = fields;
    unit.m_nFileSize = static_cast<int>(size);
    unit.m_strFilePath = CQWString(fields);
    unit.m_strFieldName = CQWString(key);
    FUZZ_CHECK(http.GetPostFileMethodData(false, unit));
    const std::string head(reinterpret_cast<const char*>(unit.m_pHeaderData), static_cast<std::size_t>(unit.m_nHeaderLen));
    const std::size_t blank = head.find("\r\n\r\n");
    const std::size_t lengthAt = head.find("Content-Length: ");
    FUZZ_CHECK(blank != std::string::npos && lengthAt != std::string::npos && lengthAt < blank);
    const long contentLength = std::strtol(head.c_str() + lengthAt + 16, nullptr, 10);
    FUZZ_CHECK(contentLength == static_cast<long>(head.size() - blank - 4) + unit.m_nFileSize + unit.m_nInfoDataLen);

    CQWString name;
    (void)CHttpData::GetFileNameFromURL(&fields, name);
    return 0;
}
