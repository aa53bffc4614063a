#include "BaseClass/src/CMLDataBuf.h"

#include "support/HeapWatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

const unsigned char* Bytes(const char* text)
{
    return reinterpret_cast<const unsigned char*>(text);
}

std::string Content(CMLDataBuf& buf)
{
    return std::string(reinterpret_cast<const char*>(buf.GetBuf()), buf.GetUsedSize());
}

// A buffer of capacity 10 holding "0123456789" minus whatever the test needs.
void Fill(CMLDataBuf& buf, const char* text)
{
    ASSERT_NE(0, buf.Create(10));
    ASSERT_NE(0, buf.Append(Bytes(text), std::strlen(text)));
}

}  // namespace

TEST(CMLDataBuf, NewBufferHasNoStorage)
{
    CMLDataBuf buf;
    EXPECT_EQ(nullptr, buf.GetBuf());
    EXPECT_EQ(0u, buf.GetCapacity());
    EXPECT_EQ(0u, buf.GetUsedSize());
}

TEST(CMLDataBuf, AppendBeforeCreateIsRefused)
{
    CMLDataBuf buf;
    EXPECT_EQ(0, buf.Append(Bytes("a"), 1));
    EXPECT_EQ(0u, buf.GetUsedSize());
}

TEST(CMLDataBuf, CreateGivesEmptyBufferOfCapacity)
{
    CMLDataBuf buf;
    ASSERT_NE(0, buf.Create(10240));
    EXPECT_NE(nullptr, buf.GetBuf());
    EXPECT_EQ(10240u, buf.GetCapacity());
    EXPECT_EQ(0u, buf.GetUsedSize());
}

TEST(CMLDataBuf, CreateZeroCapacityRefusesEveryByte)
{
    CMLDataBuf buf;
    ASSERT_NE(0, buf.Create(0));
    EXPECT_EQ(0u, buf.GetCapacity());
    EXPECT_NE(0, buf.Append(Bytes(""), 0));
    EXPECT_EQ(0, buf.Append(Bytes("a"), 1));
}

TEST(CMLDataBuf, RecreateReplacesContentAndCapacity)
{
    CMLDataBuf buf;
    Fill(buf, "abcdef");
    ASSERT_NE(0, buf.Create(3));
    EXPECT_EQ(3u, buf.GetCapacity());
    EXPECT_EQ(0u, buf.GetUsedSize());
    EXPECT_NE(0, buf.Append(Bytes("xyz"), 3));
    EXPECT_EQ("xyz", Content(buf));
}

TEST(CMLDataBuf, AppendKeepsOrderAcrossCalls)
{
    CMLDataBuf buf;
    ASSERT_NE(0, buf.Create(16));
    EXPECT_NE(0, buf.Append(Bytes("GET "), 4));
    EXPECT_NE(0, buf.Append(Bytes("/ HTTP"), 6));
    EXPECT_EQ(10u, buf.GetUsedSize());
    EXPECT_EQ("GET / HTTP", Content(buf));
}

TEST(CMLDataBuf, AppendExactlyFillingCapacitySucceeds)
{
    CMLDataBuf buf;
    Fill(buf, "01234");
    EXPECT_NE(0, buf.Append(Bytes("56789"), 5));
    EXPECT_EQ(10u, buf.GetUsedSize());
    EXPECT_EQ("0123456789", Content(buf));
}

TEST(CMLDataBuf, AppendOneByteMoreThanFitsAppendsNothing)
{
    CMLDataBuf buf;
    Fill(buf, "01234");
    EXPECT_EQ(0, buf.Append(Bytes("56789A"), 6));
    EXPECT_EQ(5u, buf.GetUsedSize());
    EXPECT_EQ("01234", Content(buf));
}

TEST(CMLDataBuf, AppendToFullBufferIsRefused)
{
    CMLDataBuf buf;
    Fill(buf, "0123456789");
    EXPECT_EQ(0, buf.Append(Bytes("x"), 1));
    EXPECT_EQ(10u, buf.GetUsedSize());
    EXPECT_NE(0, buf.Append(Bytes("x"), 0));
    EXPECT_EQ(10u, buf.GetUsedSize());
}

TEST(CMLDataBuf, AppendNullDataIsRefused)
{
    CMLDataBuf buf;
    ASSERT_NE(0, buf.Create(4));
    EXPECT_EQ(0, buf.Append(nullptr, 2));
    EXPECT_EQ(0u, buf.GetUsedSize());
}

TEST(CMLDataBuf, AppendKeepsBinaryBytes)
{
    CMLDataBuf buf;
    ASSERT_NE(0, buf.Create(4));
    const unsigned char bytes[4] = {0x00, 0xff, 0x0d, 0x0a};
    EXPECT_NE(0, buf.Append(bytes, 4));
    EXPECT_EQ(0, std::memcmp(buf.GetBuf(), bytes, 4));
}

TEST(CMLDataBuf, ZeroEmptiesButKeepsCapacity)
{
    CMLDataBuf buf;
    Fill(buf, "0123456789");
    buf.Zero();
    EXPECT_EQ(0u, buf.GetUsedSize());
    EXPECT_EQ(10u, buf.GetCapacity());
    EXPECT_NE(0, buf.Append(Bytes("0123456789"), 10));
}

TEST(CMLDataBuf, SetUsedSizeForDirectFill)
{
    CMLDataBuf buf;
    ASSERT_NE(0, buf.Create(10));
    std::memcpy(buf.GetBuf(), "abc", 3);
    buf.SetUsedSize(3);
    EXPECT_EQ("abc", Content(buf));
    EXPECT_NE(0, buf.Append(Bytes("d"), 1));
    EXPECT_EQ("abcd", Content(buf));
}

TEST(CMLDataBuf, SetUsedSizeAtCapacityAndPastIt)
{
    CMLDataBuf buf;
    ASSERT_NE(0, buf.Create(10));
    buf.SetUsedSize(10);
    EXPECT_EQ(10u, buf.GetUsedSize());
    buf.SetUsedSize(11);
    EXPECT_EQ(10u, buf.GetUsedSize());
}

TEST(CMLDataBuf, MoveDataToHeadZeroChangesNothing)
{
    CMLDataBuf buf;
    Fill(buf, "abcdef");
    buf.MoveDataToHead(0);
    EXPECT_EQ("abcdef", Content(buf));
}

TEST(CMLDataBuf, MoveDataToHeadNegativeChangesNothing)
{
    CMLDataBuf buf;
    Fill(buf, "abcdef");
    buf.MoveDataToHead(-1);
    EXPECT_EQ("abcdef", Content(buf));
}

TEST(CMLDataBuf, MoveDataToHeadOneDropsFirstByte)
{
    CMLDataBuf buf;
    Fill(buf, "abcdef");
    buf.MoveDataToHead(1);
    EXPECT_EQ("bcdef", Content(buf));
}

TEST(CMLDataBuf, MoveDataToHeadOneLessThanUsedKeepsLastByte)
{
    CMLDataBuf buf;
    Fill(buf, "abcdef");
    buf.MoveDataToHead(5);
    EXPECT_EQ("f", Content(buf));
}

TEST(CMLDataBuf, MoveDataToHeadUsedEmpties)
{
    CMLDataBuf buf;
    Fill(buf, "abcdef");
    buf.MoveDataToHead(6);
    EXPECT_EQ(0u, buf.GetUsedSize());
}

TEST(CMLDataBuf, MoveDataToHeadPastUsedEmpties)
{
    CMLDataBuf buf;
    Fill(buf, "abcdef");
    buf.MoveDataToHead(7);
    EXPECT_EQ(0u, buf.GetUsedSize());
    EXPECT_EQ(10u, buf.GetCapacity());
}

TEST(CMLDataBuf, MoveDataToHeadFreesRoomForAppend)
{
    CMLDataBuf buf;
    Fill(buf, "0123456789");
    buf.MoveDataToHead(4);
    EXPECT_NE(0, buf.Append(Bytes("abcd"), 4));
    EXPECT_EQ(0, buf.Append(Bytes("e"), 1));
    EXPECT_EQ("456789abcd", Content(buf));
}

TEST(CMLDataBuf, MoveDataToHeadOnEmptyBufferIsHarmless)
{
    CMLDataBuf buf;
    buf.MoveDataToHead(3);
    EXPECT_EQ(0u, buf.GetUsedSize());
    ASSERT_NE(0, buf.Create(4));
    buf.MoveDataToHead(3);
    EXPECT_EQ(0u, buf.GetUsedSize());
}

TEST(CMLDataBuf, CreateThatRunsOutOfMemoryKeepsTheOldBuffer)
{
    CMLDataBuf buf;
    Fill(buf, "abc");
    const unsigned char* old = buf.GetBuf();
    velatest::HeapWatch::FailNothrowAfter(0);
    const int created = buf.Create(100);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, created);
    EXPECT_EQ(old, buf.GetBuf());
    EXPECT_EQ(10u, buf.GetCapacity());
    EXPECT_EQ("abc", Content(buf));
}
