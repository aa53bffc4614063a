// Request header units: the records that carry a built request to the
// engines, and the one release path of each owned buffer.

#include "src/RequestHeaderUnit.h"

#include "support/HeapWatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

unsigned char* NewBytes(const char* text)
{
    const size_t n = std::strlen(text);
    unsigned char* bytes = new unsigned char[n];
    std::memcpy(bytes, text, n);
    return bytes;
}

// ---------------------------------------------------------------- CQRequestHeaderUnit

TEST(CQRequestHeaderUnit, StartsEmptyWithOffsetMinusOne)
{
    CQRequestHeaderUnit unit;
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
    EXPECT_EQ(0, unit.m_nHeaderLen);
    EXPECT_EQ(-1, unit.m_nOffset);
    EXPECT_TRUE(unit.m_strData.IsEmpty());
}

TEST(CQRequestHeaderUnit, SetHeaderDataTakesOwnershipAndFreesThePrevious)
{
    CQRequestHeaderUnit unit;
    velatest::HeapWatch::Clear();
    unsigned char* first = NewBytes("GET / HTTP/1.1\r\n\r\n");
    velatest::HeapWatch::Watch(first);
    unit.SetHeaderData(first, 18);
    EXPECT_EQ(18, unit.m_nHeaderLen);
    unsigned char* second = NewBytes("POST");
    unit.SetHeaderData(second, 4);
    EXPECT_TRUE(velatest::HeapWatch::Freed(first));
    EXPECT_EQ(second, unit.m_pHeaderData);
    EXPECT_EQ(4, unit.m_nHeaderLen);
    EXPECT_EQ(0, std::memcmp(unit.m_pHeaderData, "POST", 4));
}

TEST(CQRequestHeaderUnit, SetHeaderDataWithNullHasLengthZero)
{
    CQRequestHeaderUnit unit;
    unit.SetHeaderData(nullptr, 40);
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
    EXPECT_EQ(0, unit.m_nHeaderLen);
}

TEST(CQRequestHeaderUnit, ClearFreesResetsOffsetAndEmptiesTheText)
{
    CQRequestHeaderUnit unit;
    unit.SetHeaderData(NewBytes("abc"), 3);
    unit.m_nOffset = 4096;
    unit.m_strData.SetData("a=1&b=2");
    unit.Clear();
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
    EXPECT_EQ(0, unit.m_nHeaderLen);
    EXPECT_EQ(-1, unit.m_nOffset);
    EXPECT_TRUE(unit.m_strData.IsEmpty());
    unit.Clear();  // twice is harmless
    unit.FreeHeaderData();
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
}

TEST(CQRequestHeaderUnit, DestructionFreesTheHeader)
{
    velatest::HeapWatch::Clear();
    auto unit = std::make_unique<CQRequestHeaderUnit>();
    unsigned char* header = NewBytes("request");
    velatest::HeapWatch::Watch(header);
    unit->SetHeaderData(header, 7);
    EXPECT_FALSE(velatest::HeapWatch::Freed(header));
    unit.reset();
    EXPECT_TRUE(velatest::HeapWatch::Freed(header));
}

// ---------------------------------------------------------------- CQPostFileHeaderUnit

TEST(CQPostFileHeaderUnit, StartsEmpty)
{
    CQPostFileHeaderUnit unit;
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
    EXPECT_EQ(0, unit.m_nHeaderLen);
    EXPECT_EQ(-1, unit.m_nOffset);
    EXPECT_TRUE(unit.m_strData.IsEmpty());
    EXPECT_EQ(nullptr, unit.m_pInfoData);
    EXPECT_EQ(0, unit.m_nInfoDataLen);
    EXPECT_EQ(0, unit.m_nFileSize);
    EXPECT_TRUE(unit.m_strFilePath.IsEmpty());
    EXPECT_TRUE(unit.m_strFieldName.IsEmpty());
}

TEST(CQPostFileHeaderUnit, SetInfoDataTakesOwnershipAndFreesThePrevious)
{
    CQPostFileHeaderUnit unit;
    unit.SetInfoData(NewBytes("\r\n--7d92bf36e1196--"), 19);
    EXPECT_EQ(19, unit.m_nInfoDataLen);
    unsigned char* second = NewBytes("tail");
    unit.SetInfoData(second, 4);
    EXPECT_EQ(second, unit.m_pInfoData);
    EXPECT_EQ(4, unit.m_nInfoDataLen);
}

TEST(CQPostFileHeaderUnit, ClearFreesBothBuffersAndKeepsTheFileNames)
{
    CQPostFileHeaderUnit unit;
    unit.SetHeaderData(NewBytes("head"), 4);
    unit.SetInfoData(NewBytes("tail"), 4);
    unit.m_nOffset = 10;
    unit.m_nFileSize = 1000;
    unit.m_strData.SetData("uin=1");
    unit.m_strFilePath.SetData(L"/home/u/p.jpg");
    unit.m_strFieldName.SetData(L"file");
    unit.Clear();
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
    EXPECT_EQ(0, unit.m_nHeaderLen);
    EXPECT_EQ(-1, unit.m_nOffset);
    EXPECT_TRUE(unit.m_strData.IsEmpty());
    EXPECT_EQ(nullptr, unit.m_pInfoData);
    EXPECT_EQ(0, unit.m_nInfoDataLen);
    EXPECT_EQ(0, unit.m_nFileSize);
    EXPECT_TRUE(unit.m_strFilePath == CQWString(L"/home/u/p.jpg"));
    EXPECT_TRUE(unit.m_strFieldName == CQWString(L"file"));
    unit.Clear();
    unit.FreeInfoData();
    EXPECT_EQ(nullptr, unit.m_pInfoData);
}

TEST(CQPostFileHeaderUnit, ClearThroughTheBaseReachesTheTrailer)
{
    CQPostFileHeaderUnit unit;
    unit.SetInfoData(NewBytes("tail"), 4);
    CQRequestHeaderUnit& base = unit;
    base.Clear();
    EXPECT_EQ(nullptr, unit.m_pInfoData);
    EXPECT_EQ(0, unit.m_nInfoDataLen);
}

TEST(CQPostFileHeaderUnit, DestructionThroughTheBaseFreesBothBuffers)
{
    velatest::HeapWatch::Clear();
    std::unique_ptr<CQRequestHeaderUnit> unit(new CQPostFileHeaderUnit);
    auto* fileUnit = static_cast<CQPostFileHeaderUnit*>(unit.get());
    unsigned char* head = NewBytes("head");
    unsigned char* tail = NewBytes("tail");
    velatest::HeapWatch::Watch(head);
    velatest::HeapWatch::Watch(tail);
    fileUnit->SetHeaderData(head, 4);
    fileUnit->SetInfoData(tail, 4);
    unit.reset();
    EXPECT_TRUE(velatest::HeapWatch::Freed(head));
    EXPECT_TRUE(velatest::HeapWatch::Freed(tail));
}

// ---------------------------------------------------------------- CQPostOLFileHeaderUnit

TEST(CQPostOLFileHeaderUnit, StartsWithBlockSize20480)
{
    CQPostOLFileHeaderUnit unit;
    EXPECT_EQ(20480, unit.m_nBlockSize);
    EXPECT_EQ(0, unit.m_nFileLen);
    EXPECT_EQ(-1, unit.m_nOffset);
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
    EXPECT_EQ(nullptr, unit.m_pKey);
    EXPECT_TRUE(unit.m_strFilePath.IsEmpty());
    EXPECT_TRUE(unit.m_strHost.IsEmpty());
}

TEST(CQPostOLFileHeaderUnit, SetKeyCopiesKeyLenBytesAndAZero)
{
    CQPostOLFileHeaderUnit unit;
    const char source[] = "abcdefXYZ";
    ASSERT_EQ(CQPostOLFileHeaderUnit::KKeySet, unit.SetKey(source, 6));
    ASSERT_NE(nullptr, unit.m_pKey);
    EXPECT_NE(source, unit.m_pKey);  // a copy
    EXPECT_STREQ("abcdef", unit.m_pKey);
    // A second key replaces (and frees) the first.
    ASSERT_EQ(CQPostOLFileHeaderUnit::KKeySet, unit.SetKey("k", 1));
    EXPECT_STREQ("k", unit.m_pKey);
}

TEST(CQPostOLFileHeaderUnit, SetKeyOfLengthZeroIsTheEmptyText)
{
    CQPostOLFileHeaderUnit unit;
    ASSERT_EQ(CQPostOLFileHeaderUnit::KKeySet, unit.SetKey("ignored", 0));
    ASSERT_NE(nullptr, unit.m_pKey);
    EXPECT_STREQ("", unit.m_pKey);
}

TEST(CQPostOLFileHeaderUnit, SetKeyRefusesNullAndNegativeLengths)
{
    CQPostOLFileHeaderUnit unit;
    ASSERT_EQ(CQPostOLFileHeaderUnit::KKeySet, unit.SetKey("old", 3));
    EXPECT_EQ(CQPostOLFileHeaderUnit::KKeyRefused, unit.SetKey(nullptr, 3));
    EXPECT_EQ(nullptr, unit.m_pKey);
    EXPECT_EQ(CQPostOLFileHeaderUnit::KKeyRefused, unit.SetKey("abc", -1));
    EXPECT_EQ(nullptr, unit.m_pKey);
}

TEST(CQPostOLFileHeaderUnit, SetKeyWithoutMemoryForTheCopyIsRefusedAndDropsTheOldKey)
{
    CQPostOLFileHeaderUnit unit;
    ASSERT_EQ(CQPostOLFileHeaderUnit::KKeySet, unit.SetKey("old", 3));
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = unit.SetKey("abc", 3);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(CQPostOLFileHeaderUnit::KKeyRefused, result);
    EXPECT_EQ(nullptr, unit.m_pKey);
    // Memory back: the same key is taken.
    ASSERT_EQ(CQPostOLFileHeaderUnit::KKeySet, unit.SetKey("abc", 3));
    EXPECT_STREQ("abc", unit.m_pKey);
}

TEST(CQPostOLFileHeaderUnit, ClearFreesTheKeyAndKeepsTheBlockSize)
{
    CQPostOLFileHeaderUnit unit;
    unit.SetHeaderData(NewBytes("head"), 4);
    unit.SetKey("key", 3);
    unit.m_nFileLen = 25000;
    unit.m_nBlockSize = 10240;
    unit.m_strData.SetData("x");
    unit.m_strHost.SetData("up.test");
    unit.m_strFilePath.SetData(L"/tmp/f");
    unit.Clear();
    EXPECT_EQ(nullptr, unit.m_pHeaderData);
    EXPECT_EQ(0, unit.m_nHeaderLen);
    EXPECT_EQ(-1, unit.m_nOffset);
    EXPECT_TRUE(unit.m_strData.IsEmpty());
    EXPECT_EQ(0, unit.m_nFileLen);
    EXPECT_EQ(nullptr, unit.m_pKey);
    EXPECT_EQ(10240, unit.m_nBlockSize);
    EXPECT_STREQ("up.test", unit.m_strHost.GetDataPtr());
    EXPECT_TRUE(unit.m_strFilePath == CQWString(L"/tmp/f"));
    unit.Clear();
    unit.FreeKey();
    EXPECT_EQ(nullptr, unit.m_pKey);
}

TEST(CQPostOLFileHeaderUnit, DestructionFreesHeaderAndKey)
{
    velatest::HeapWatch::Clear();
    auto unit = std::make_unique<CQPostOLFileHeaderUnit>();
    unsigned char* head = NewBytes("head");
    velatest::HeapWatch::Watch(head);
    unit->SetHeaderData(head, 4);
    ASSERT_EQ(CQPostOLFileHeaderUnit::KKeySet, unit->SetKey("key", 3));
    const char* key = unit->m_pKey;
    ASSERT_NE(nullptr, key);
    EXPECT_STREQ("key", key);
    velatest::HeapWatch::Watch(key);
    unit.reset();
    EXPECT_TRUE(velatest::HeapWatch::Freed(head));
    EXPECT_TRUE(velatest::HeapWatch::Freed(key));
}

// ---------------------------------------------------------------- 64-bit companions

TEST(CQRequestHeaderUnit, Offset64AtTheEdgesOfAnInt)
{
    CQRequestHeaderUnit unit;
    EXPECT_EQ(-1, unit.GetOffset64());
    unit.SetOffset64(2147483647LL);
    EXPECT_EQ(2147483647, unit.m_nOffset);
    EXPECT_EQ(2147483647LL, unit.GetOffset64());
    unit.SetOffset64(2147483648LL);
    EXPECT_EQ(CQRequestHeaderUnit::KIntSaturated, unit.m_nOffset);  // never wraps negative
    EXPECT_EQ(2147483648LL, unit.GetOffset64());
    unit.SetOffset64(2684354560LL);
    EXPECT_EQ(2684354560LL, unit.GetOffset64());
    unit.SetOffset64(-1);
    EXPECT_EQ(-1, unit.m_nOffset);
    EXPECT_EQ(-1, unit.GetOffset64());
}

TEST(CQRequestHeaderUnit, AnIntOffsetWrittenOnItsOwnCounts)
{
    CQRequestHeaderUnit unit;
    unit.SetOffset64(4294967306LL);
    unit.m_nOffset = 100;
    EXPECT_EQ(100, unit.GetOffset64());
    unit.Clear();
    EXPECT_EQ(-1, unit.m_nOffset64);
    EXPECT_EQ(-1, unit.GetOffset64());
}

TEST(CQPostFileHeaderUnit, FileSize64)
{
    CQPostFileHeaderUnit unit;
    unit.SetFileSize64(3221225472LL);
    EXPECT_EQ(CQRequestHeaderUnit::KIntSaturated, unit.m_nFileSize);
    EXPECT_EQ(3221225472LL, unit.GetFileSize64());
    unit.m_nFileSize = 1000;  // the documented field, written directly
    EXPECT_EQ(1000, unit.GetFileSize64());
    unit.Clear();
    EXPECT_EQ(0, unit.m_nFileSize64);
    EXPECT_EQ(0, unit.GetFileSize64());
}

TEST(CQPostOLFileHeaderUnit, FileLen64)
{
    CQPostOLFileHeaderUnit unit;
    unit.SetFileLen64(2147483647LL);
    EXPECT_EQ(2147483647, unit.m_nFileLen);
    unit.SetFileLen64(5368709120LL);
    EXPECT_EQ(CQRequestHeaderUnit::KIntSaturated, unit.m_nFileLen);
    EXPECT_EQ(5368709120LL, unit.GetFileLen64());
    unit.Clear();
    EXPECT_EQ(0, unit.GetFileLen64());
}

}  // namespace
