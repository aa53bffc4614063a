// Send units: the memory cursor, the header/file/trailer stream, the block
// hash of the resumable upload.

#include "src/CQSendFileUnit.h"

#include "BaseClass/src/CCrypt.h"
#include "BaseClass/src/CQString.h"

#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace {

// The bytes i of a test file: a pattern that differs from one 1024-byte
// slice to the next, so a slice out of place shows.
std::string Pattern(int len, int seed = 0)
{
    std::string bytes(static_cast<size_t>(len), '\0');
    for (int i = 0; i < len; ++i)
        bytes[static_cast<size_t>(i)] = static_cast<char>((i * 7 + i / 1024 + seed) & 0xFF);
    return bytes;
}

void WriteFile(const QString& path, const std::string& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(static_cast<qint64>(bytes.size()), file.write(bytes.data(), static_cast<qint64>(bytes.size())));
}

CQWString Wide(const QString& path)
{
    return CQWString(path);
}

std::vector<unsigned char> Bytes(const std::string& text)
{
    return std::vector<unsigned char>(text.begin(), text.end());
}

std::string Visible(const std::string& bytes)
{
    return velatest::Visible(reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
}

// One LoadData call as the socket engine sees it.
struct Slice
{
    int phase = 0;  // the unit's phase after the call
    std::string bytes;
};

// Drains a unit the way the socket engine does (EnableSendSize, then
// LoadData of at most max), recording every slice.
std::vector<Slice> Drain(CQSendUnit& unit, int max)
{
    std::vector<Slice> slices;
    for (int guard = 0; guard < 100000; ++guard) {
        if (unit.EnableSendSize() <= 0)
            break;
        unsigned char* p = nullptr;
        const int k = unit.LoadData(&p, max);
        if (k <= 0)
            break;
        Slice slice;
        slice.bytes.assign(reinterpret_cast<const char*>(p), static_cast<size_t>(k));
        if (auto* fileUnit = dynamic_cast<CQSendFileUnit*>(&unit))
            slice.phase = fileUnit->m_nPhase;
        slices.push_back(slice);
    }
    return slices;
}

std::string Joined(const std::vector<Slice>& slices)
{
    std::string all;
    for (const Slice& s : slices)
        all += s.bytes;
    return all;
}

std::vector<int> Sizes(const std::vector<Slice>& slices)
{
    std::vector<int> sizes;
    for (const Slice& s : slices)
        sizes.push_back(static_cast<int>(s.bytes.size()));
    return sizes;
}

std::vector<int> Phases(const std::vector<Slice>& slices)
{
    std::vector<int> phases;
    for (const Slice& s : slices)
        phases.push_back(s.phase);
    return phases;
}

std::string TakeMd5(char* hex)
{
    std::unique_ptr<char[]> owned(hex);
    return hex ? std::string(hex) : std::string("<null>");
}

// A unit that is back in its cleared state.
void ExpectCleared(const CQSendFileUnit& unit)
{
    EXPECT_EQ(nullptr, unit.m_pData);
    EXPECT_EQ(0, unit.m_nLength);
    EXPECT_EQ(0, unit.m_nSent);
    EXPECT_EQ(CQSendFileUnit::SFP_Header, unit.m_nPhase);
    EXPECT_EQ(0, unit.m_nFileLength);
    EXPECT_EQ(0, unit.m_nFileRead);
    EXPECT_EQ(10240, unit.m_nResumeBlockSize);
    EXPECT_FALSE(unit.m_File.IsOpen());
    EXPECT_EQ(nullptr, unit.m_pReadBuffer);
    EXPECT_EQ(0, unit.m_nBlockSize);
    EXPECT_EQ(nullptr, unit.m_pInfoData);
    EXPECT_EQ(0, unit.m_nInfoDataLen);
    EXPECT_EQ(0, unit.m_nInfoDataSent);
}

// ---------------------------------------------------------------- base unit

TEST(CQSendUnit, BaseHasNothingToSend)
{
    std::vector<unsigned char> block = Bytes("hello");
    CQSendUnit unit;
    unit.SetData(block.data(), 5, false);
    EXPECT_EQ(0, unit.EnableSendSize());
    unsigned char* p = nullptr;
    EXPECT_EQ(0, unit.LoadData(&p, 1024));
    EXPECT_EQ(nullptr, p);
}

TEST(CQSendUnit, SetDataStoresAndRestartsTheCursor)
{
    std::vector<unsigned char> a = Bytes("abc");
    std::vector<unsigned char> b = Bytes("defgh");
    CQSendDataUnit unit;
    unit.SetData(a.data(), 3, false);
    unsigned char* p = nullptr;
    ASSERT_EQ(2, unit.LoadData(&p, 2));
    EXPECT_EQ(2, unit.m_nSent);
    unit.SetData(b.data(), 5, false);
    EXPECT_EQ(b.data(), unit.m_pData);
    EXPECT_EQ(5, unit.m_nLength);
    EXPECT_EQ(0, unit.m_nSent);
    EXPECT_FALSE(unit.m_bOwns);
    EXPECT_EQ(5, unit.EnableSendSize());
}

TEST(CQSendUnit, ClearAllKeepsTheOwnsFlagAndLeavesBorrowedData)
{
    std::vector<unsigned char> borrowed = Bytes("borrowed");
    CQSendDataUnit unit;
    unit.SetData(borrowed.data(), 8, false);
    unit.ClearAll();
    EXPECT_EQ(nullptr, unit.m_pData);
    EXPECT_EQ(0, unit.m_nLength);
    EXPECT_EQ(0, unit.m_nSent);
    EXPECT_FALSE(unit.m_bOwns);
    EXPECT_EQ('b', borrowed[0]);  // still ours, not freed

    velatest::HeapWatch::Clear();
    unsigned char* owned = new unsigned char[4]();
    velatest::HeapWatch::Watch(owned);
    unit.SetData(owned, 4, true);
    unit.ClearAll();
    EXPECT_TRUE(velatest::HeapWatch::Freed(owned));
    EXPECT_TRUE(unit.m_bOwns);
    EXPECT_EQ(nullptr, unit.m_pData);
    unit.ClearAll();  // twice is harmless
    EXPECT_EQ(0, unit.EnableSendSize());
}

TEST(CQSendUnit, DestructorFreesAnOwnedBlock)
{
    velatest::HeapWatch::Clear();
    auto unit = std::make_unique<CQSendDataUnit>();
    unsigned char* block = new unsigned char[16]();
    velatest::HeapWatch::Watch(block);
    unit->SetData(block, 16, true);
    EXPECT_EQ(block, unit->m_pData);
    unit.reset();
    EXPECT_TRUE(velatest::HeapWatch::Freed(block));
}

// ---------------------------------------------------------------- data unit

TEST(CQSendDataUnit, LengthZeroGivesNothing)
{
    std::vector<unsigned char> block = Bytes("x");
    CQSendDataUnit unit;
    unit.SetData(block.data(), 0, false);
    EXPECT_EQ(0, unit.EnableSendSize());
    unsigned char* p = nullptr;
    EXPECT_EQ(0, unit.LoadData(&p, 1024));
    EXPECT_EQ(0, unit.m_nSent);
}

TEST(CQSendDataUnit, NullPointerGivesNothing)
{
    CQSendDataUnit unit;
    unit.SetData(nullptr, 100, false);
    EXPECT_EQ(0, unit.EnableSendSize());
    unsigned char* p = nullptr;
    EXPECT_EQ(0, unit.LoadData(&p, 1024));
    EXPECT_EQ(0, unit.m_nSent);
}

TEST(CQSendDataUnit, NegativeLengthGivesNothing)
{
    std::vector<unsigned char> block = Bytes("x");
    CQSendDataUnit unit;
    unit.SetData(block.data(), -5, false);
    EXPECT_EQ(0, unit.EnableSendSize());
    unsigned char* p = nullptr;
    EXPECT_EQ(0, unit.LoadData(&p, 1024));
}

TEST(CQSendDataUnit, A2500ByteRequestGoesOutAs1024_1024_452)
{
    const std::string text = Pattern(2500);
    std::vector<unsigned char> block = Bytes(text);
    CQSendDataUnit unit;
    unit.SetData(block.data(), 2500, false);
    EXPECT_EQ(2500, unit.EnableSendSize());

    unsigned char* p = nullptr;
    ASSERT_EQ(1024, unit.LoadData(&p, 1024));
    EXPECT_EQ(block.data(), p);  // the block itself, not a copy
    EXPECT_EQ(1476, unit.EnableSendSize());
    ASSERT_EQ(1024, unit.LoadData(&p, 1024));
    EXPECT_EQ(block.data() + 1024, p);
    ASSERT_EQ(452, unit.LoadData(&p, 1024));
    EXPECT_EQ(block.data() + 2048, p);
    EXPECT_EQ(0, unit.EnableSendSize());
    EXPECT_EQ(0, unit.LoadData(&p, 1024));
    EXPECT_EQ(2500, unit.m_nSent);
}

TEST(CQSendDataUnit, MaxBelowOneHandsOutNothing)
{
    std::vector<unsigned char> block = Bytes("abc");
    CQSendDataUnit unit;
    unit.SetData(block.data(), 3, false);
    unsigned char* p = nullptr;
    EXPECT_EQ(0, unit.LoadData(&p, 0));
    EXPECT_EQ(0, unit.LoadData(&p, -4));
    EXPECT_EQ(0, unit.m_nSent);
    EXPECT_EQ(0, unit.LoadData(nullptr, 10));
    EXPECT_EQ(0, unit.m_nSent);
}

// LoadData never returns more than max: each row drains a 3000-byte block.
struct MaxRow
{
    const char* name;
    int max;
};

class DataUnitMax : public ::testing::TestWithParam<MaxRow>
{
};

TEST_P(DataUnitMax, NoSliceExceedsMaxAndTheBytesComeBackWhole)
{
    const std::string text = Pattern(3000, 3);
    std::vector<unsigned char> block = Bytes(text);
    CQSendDataUnit unit;
    unit.SetData(block.data(), 3000, false);
    const std::vector<Slice> slices = Drain(unit, GetParam().max);
    for (const Slice& s : slices)
        EXPECT_LE(static_cast<int>(s.bytes.size()), GetParam().max);
    const int expectedCount = (3000 + GetParam().max - 1) / GetParam().max;
    EXPECT_EQ(expectedCount, static_cast<int>(slices.size()));
    EXPECT_TRUE(Joined(slices) == text);
}

const MaxRow kMaxRows[] = {
    {"max_1", 1}, {"max_7", 7}, {"max_1023", 1023}, {"max_1024", 1024},
    {"max_2999", 2999}, {"max_3000", 3000}, {"max_3001", 3001},
};

INSTANTIATE_TEST_SUITE_P(Rows, DataUnitMax, ::testing::ValuesIn(kMaxRows),
                         [](const ::testing::TestParamInfo<MaxRow>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- file unit

class CQSendFileUnitTest : public ::testing::Test
{
protected:
    // A unit over header, a file with fileBytes and trailer; every byte
    // buffer stays alive with the fixture.
    void Prepare(CQSendFileUnit& unit, const std::string& header, const std::string& fileBytes,
                 const std::string& trailer, int blockSize = 1024)
    {
        m_header = Bytes(header);
        m_trailer = Bytes(trailer);
        m_path = dir.File("upload.bin");
        WriteFile(m_path, fileBytes);
        unit.ClearAll();
        unit.SetData(m_header.empty() ? nullptr : m_header.data(), static_cast<int>(m_header.size()), false);
        unit.SetInfoData(m_trailer.empty() ? nullptr : m_trailer.data(), static_cast<int>(m_trailer.size()),
                         false);
        ASSERT_EQ(CQSendFileUnit::KOpened, unit.SetFile(Wide(m_path), blockSize));
    }

    velatest::TempDir dir;
    QString m_path;
    std::vector<unsigned char> m_header;
    std::vector<unsigned char> m_trailer;
};

TEST_F(CQSendFileUnitTest, HeaderFileTrailerIn1024ByteSlices)
{
    const std::string header = "POST /up HTTP/1.1\r\nHost: h\r\n\r\n" + Pattern(70, 1);  // 100 bytes
    const std::string file = Pattern(2500, 2);
    const std::string trailer = "\r\n--7d92bf36e1196--" + std::string("abcdefghijk");  // 30 bytes
    ASSERT_EQ(100u, header.size());
    ASSERT_EQ(30u, trailer.size());
    CQSendFileUnit unit;
    Prepare(unit, header, file, trailer);

    // The whole stream is announced before the first slice.
    EXPECT_EQ(100 + 2500 + 30, unit.EnableSendSize());
    const std::vector<Slice> slices = Drain(unit, 1024);

    // Each phase is sliced on its own: the header does not run on into the
    // file, the file does not run on into the trailer.
    EXPECT_EQ((std::vector<int>{100, 1024, 1024, 452, 30}), Sizes(slices));
    EXPECT_EQ((std::vector<int>{CQSendFileUnit::SFP_Header, CQSendFileUnit::SFP_File, CQSendFileUnit::SFP_File,
                                CQSendFileUnit::SFP_File, CQSendFileUnit::SFP_Trailer}),
              Phases(slices));
    EXPECT_EQ(Visible(header + file + trailer), Visible(Joined(slices)));
    ExpectCleared(unit);
    EXPECT_EQ(0, unit.EnableSendSize());
}

TEST_F(CQSendFileUnitTest, EnableSendSizeCountsTheRestOfTheStream)
{
    const std::string header = Pattern(1500, 4);
    const std::string file = Pattern(1100, 5);
    const std::string trailer = Pattern(40, 6);
    CQSendFileUnit unit;
    Prepare(unit, header, file, trailer);
    unsigned char* p = nullptr;

    EXPECT_EQ(40 + 1100 + 1500, unit.EnableSendSize());
    ASSERT_EQ(1024, unit.LoadData(&p, 1024));
    EXPECT_EQ(40 + 1100 + 476, unit.EnableSendSize());
    ASSERT_EQ(476, unit.LoadData(&p, 1024));
    EXPECT_EQ(CQSendFileUnit::SFP_Header, unit.m_nPhase);
    // The header is drained: the next question moves on to the file.
    EXPECT_EQ(40 + 1100, unit.EnableSendSize());
    EXPECT_EQ(CQSendFileUnit::SFP_File, unit.m_nPhase);
    ASSERT_EQ(1024, unit.LoadData(&p, 1024));
    EXPECT_EQ(1024, unit.m_nFileRead);
    EXPECT_EQ(40 + 76, unit.EnableSendSize());
    ASSERT_EQ(76, unit.LoadData(&p, 1024));
    // The file is drained: the next question moves on to the trailer.
    EXPECT_EQ(40, unit.EnableSendSize());
    EXPECT_EQ(CQSendFileUnit::SFP_Trailer, unit.m_nPhase);
    ASSERT_EQ(25, unit.LoadData(&p, 25));
    EXPECT_EQ(15, unit.EnableSendSize());
    ASSERT_EQ(15, unit.LoadData(&p, 1024));
    EXPECT_EQ(m_trailer.data() + 25, p);  // the trailer itself, not a copy
    // Exhausted: the answer is 0 and the unit clears itself.
    EXPECT_EQ(0, unit.EnableSendSize());
    ExpectCleared(unit);
}

TEST_F(CQSendFileUnitTest, EmptyHeaderStartsWithTheFile)
{
    const std::string file = Pattern(1030, 7);
    const std::string trailer = "--end--";
    CQSendFileUnit unit;
    Prepare(unit, "", file, trailer);
    const std::vector<Slice> slices = Drain(unit, 1024);
    ASSERT_FALSE(slices.empty());
    EXPECT_EQ(CQSendFileUnit::SFP_File, slices[0].phase);
    EXPECT_EQ((std::vector<int>{1024, 6, 7}), Sizes(slices));
    EXPECT_EQ(Visible(file + trailer), Visible(Joined(slices)));
}

TEST_F(CQSendFileUnitTest, EmptyTrailerClearsRightAfterTheLastFileByte)
{
    const std::string header = "HEAD\r\n\r\n";
    const std::string file = Pattern(2048, 8);
    CQSendFileUnit unit;
    Prepare(unit, header, file, "");
    unsigned char* p = nullptr;
    ASSERT_EQ(8, unit.LoadData(&p, 1024));
    ASSERT_EQ(1024, unit.LoadData(&p, 1024));
    ASSERT_EQ(1024, unit.LoadData(&p, 1024));
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(p), 1024), file.substr(1024));
    // The last file byte is out: the next question finds nothing left and
    // the unit is finished.
    EXPECT_EQ(0, unit.EnableSendSize());
    ExpectCleared(unit);
    EXPECT_EQ(0, unit.LoadData(&p, 1024));
}

TEST_F(CQSendFileUnitTest, EmptyTrailerThroughLoadDataAlone)
{
    const std::string file = Pattern(10, 9);
    CQSendFileUnit unit;
    Prepare(unit, "H", file, "");
    unsigned char* p = nullptr;
    ASSERT_EQ(1, unit.LoadData(&p, 1024));
    ASSERT_EQ(10, unit.LoadData(&p, 1024));
    EXPECT_EQ(0, unit.LoadData(&p, 1024));
    ExpectCleared(unit);
}

TEST_F(CQSendFileUnitTest, EmptyFileGoesFromHeaderToTrailer)
{
    CQSendFileUnit unit;
    Prepare(unit, "HEAD", "", "TAIL");
    EXPECT_EQ(4 + 0 + 4, unit.EnableSendSize());
    const std::vector<Slice> slices = Drain(unit, 1024);
    EXPECT_EQ((std::vector<int>{4, 4}), Sizes(slices));
    EXPECT_EQ((std::vector<int>{CQSendFileUnit::SFP_Header, CQSendFileUnit::SFP_Trailer}), Phases(slices));
    EXPECT_EQ("HEADTAIL", Joined(slices));
    ExpectCleared(unit);
}

TEST_F(CQSendFileUnitTest, EmptyFileHeaderOnly)
{
    CQSendFileUnit unit;
    Prepare(unit, "HEAD", "", "");
    const std::vector<Slice> slices = Drain(unit, 1024);
    EXPECT_EQ("HEAD", Joined(slices));
    // Leaving the header phase announced 0 (trailer 0 + file 0); the file
    // phase then finds nothing and finishes the unit.
    EXPECT_EQ(CQSendFileUnit::SFP_File, unit.m_nPhase);
    EXPECT_EQ(0, unit.EnableSendSize());
    ExpectCleared(unit);
}

TEST_F(CQSendFileUnitTest, NothingAtAllGivesZero)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "", "");
    EXPECT_EQ(0, unit.EnableSendSize());
    unsigned char* p = nullptr;
    EXPECT_EQ(0, unit.LoadData(&p, 1024));
    ExpectCleared(unit);
}

// LoadData never returns more than max, nor more than blockSize in the file
// phase. Each row: block size, max, and the slice sizes the documented
// algorithm gives for a 10-byte header, a 700-byte file and a 5-byte trailer.
struct FileSliceRow
{
    const char* name;
    int blockSize;
    int max;
    std::vector<int> sizes;
};

void PrintTo(const FileSliceRow& row, std::ostream* os)
{
    *os << row.name << " (block " << row.blockSize << ", max " << row.max << ")";
}

class FileUnitSlices : public CQSendFileUnitTest, public ::testing::WithParamInterface<FileSliceRow>
{
};

TEST_P(FileUnitSlices, SliceSizesFollowMaxAndBlockSize)
{
    const FileSliceRow& row = GetParam();
    const std::string header = Pattern(10, 10);
    const std::string file = Pattern(700, 11);
    const std::string trailer = Pattern(5, 12);
    CQSendFileUnit unit;
    Prepare(unit, header, file, trailer, row.blockSize);
    const std::vector<Slice> slices = Drain(unit, row.max);
    EXPECT_EQ(row.sizes, Sizes(slices));
    for (const Slice& s : slices) {
        EXPECT_LE(static_cast<int>(s.bytes.size()), row.max);
        if (s.phase == CQSendFileUnit::SFP_File) {
            EXPECT_LE(static_cast<int>(s.bytes.size()), row.blockSize);
        }
    }
    EXPECT_EQ(Visible(header + file + trailer), Visible(Joined(slices)));
}

const FileSliceRow kFileSliceRows[] = {
    {"block1024_max1024", 1024, 1024, {10, 700, 5}},
    {"block300_max1024", 300, 1024, {10, 300, 300, 100, 5}},
    {"block700_max1024", 700, 1024, {10, 700, 5}},
    {"block699_max1024", 699, 1024, {10, 699, 1, 5}},
    {"block1024_max256", 1024, 256, {10, 256, 256, 188, 5}},
    {"block256_max300", 256, 300, {10, 256, 256, 188, 5}},
    {"block1024_max64", 1024, 64, {10, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 60, 5}},
    {"block1024_max1", 1024, 1, std::vector<int>(10 + 700 + 5, 1)},
};

INSTANTIATE_TEST_SUITE_P(Rows, FileUnitSlices, ::testing::ValuesIn(kFileSliceRows),
                         [](const ::testing::TestParamInfo<FileSliceRow>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(CQSendFileUnitTest, MaxBelowOneHandsOutNothingAndKeepsThePhase)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "abc", "");
    unsigned char* p = nullptr;
    EXPECT_EQ(0, unit.LoadData(&p, 0));
    EXPECT_EQ(0, unit.LoadData(nullptr, 1024));
    EXPECT_EQ(CQSendFileUnit::SFP_Header, unit.m_nPhase);
    EXPECT_EQ(0, unit.m_nFileRead);
    ASSERT_EQ(3, unit.LoadData(&p, 1024));
    EXPECT_EQ("abc", std::string(reinterpret_cast<const char*>(p), 3));
}

TEST_F(CQSendFileUnitTest, SetFileRecordsLengthAndBuffer)
{
    const std::string file = Pattern(4321, 13);
    CQSendFileUnit unit;
    Prepare(unit, "", file, "", 512);
    EXPECT_TRUE(unit.m_File.IsOpen());
    EXPECT_EQ(4321, unit.m_nFileLength);
    EXPECT_EQ(0, unit.m_nFileRead);
    EXPECT_EQ(512, unit.m_nBlockSize);
    EXPECT_NE(nullptr, unit.m_pReadBuffer);
    EXPECT_EQ(CQSendFileUnit::SFP_Header, unit.m_nPhase);

    // A second SetFile replaces the buffer (the old one is freed) and
    // rewinds the file.
    unsigned char* p = nullptr;
    ASSERT_EQ(512, unit.LoadData(&p, 1024));
    const QString other = dir.File("other.bin");
    WriteFile(other, "0123456789");
    ASSERT_EQ(CQSendFileUnit::KOpened, unit.SetFile(Wide(other), 4));
    EXPECT_EQ(10, unit.m_nFileLength);
    EXPECT_EQ(4, unit.m_nBlockSize);
}

TEST_F(CQSendFileUnitTest, SetFileOnAMissingFileFailsAndChangesNothingElse)
{
    CQSendFileUnit unit;
    std::vector<unsigned char> header = Bytes("head");
    std::vector<unsigned char> trailer = Bytes("tail");
    unit.SetData(header.data(), 4, false);
    unit.SetInfoData(trailer.data(), 4, false);
    EXPECT_EQ(CQSendFileUnit::KOpenFailed, unit.SetFile(Wide(dir.File("missing.bin")), 1024));
    EXPECT_FALSE(unit.m_File.IsOpen());
    EXPECT_EQ(0, unit.m_nFileLength);
    EXPECT_EQ(0, unit.m_nBlockSize);
    EXPECT_EQ(nullptr, unit.m_pReadBuffer);
    EXPECT_EQ(header.data(), unit.m_pData);
    EXPECT_EQ(trailer.data(), unit.m_pInfoData);
    // Without a file the stream is header and trailer.
    EXPECT_EQ("headtail", Joined(Drain(unit, 1024)));
}

TEST_F(CQSendFileUnitTest, SetFileOnADirectoryFails)
{
    CQSendFileUnit unit;
    EXPECT_EQ(CQSendFileUnit::KOpenFailed, unit.SetFile(Wide(dir.Path()), 1024));
    EXPECT_FALSE(unit.m_File.IsOpen());
}

TEST_F(CQSendFileUnitTest, SetFileOnAPipeFails)
{
    // A pipe opens but has no length to announce and cannot be rewound.
    const QString fifo = dir.File("pipe");
    const QByteArray name = QFile::encodeName(fifo);
    ASSERT_EQ(0, ::mkfifo(name.constData(), 0600));
    // A writer of our own, so that opening the pipe for reading does not wait.
    const int writer = ::open(name.constData(), O_RDWR | O_NONBLOCK);
    ASSERT_GE(writer, 0);
    CQSendFileUnit unit;
    EXPECT_EQ(CQSendFileUnit::KOpenFailed, unit.SetFile(Wide(fifo), 1024));
    EXPECT_FALSE(unit.m_File.IsOpen());
    EXPECT_EQ(0, unit.m_nFileLength);
    EXPECT_EQ(nullptr, unit.m_pReadBuffer);
    ::close(writer);
}

TEST_F(CQSendFileUnitTest, AReadBufferRefusedAtSetFileIsTakenAtTheFirstFileSlice)
{
    const std::string file = Pattern(1300, 21);
    m_path = dir.File("late.bin");
    WriteFile(m_path, file);
    CQSendFileUnit unit;
    const CQWString path = Wide(m_path);
    // Opening may take nothrow blocks of its own (the path's conversion):
    // the smallest number let through that opens the file leaves none for
    // the read buffer.
    int opened = CQSendFileUnit::KOpenFailed;
    for (int skip = 0; skip < 16 && opened != CQSendFileUnit::KOpened; ++skip) {
        velatest::HeapWatch::FailNothrowAfter(skip);
        opened = unit.SetFile(path, 512);
        velatest::HeapWatch::StopFailing();
    }
    ASSERT_EQ(CQSendFileUnit::KOpened, opened);
    EXPECT_EQ(nullptr, unit.m_pReadBuffer);
    EXPECT_EQ(512, unit.m_nBlockSize);
    const std::vector<Slice> slices = Drain(unit, 1024);
    EXPECT_EQ((std::vector<int>{512, 512, 276}), Sizes(slices));
    EXPECT_EQ(Visible(file), Visible(Joined(slices)));
}

TEST_F(CQSendFileUnitTest, BlockSizeZeroTakesNoReadBuffer)
{
    // Nothing is read from an empty file, so none is needed.
    CQSendFileUnit unit;
    Prepare(unit, "HEAD", "", "TAIL", 0);
    EXPECT_EQ(0, unit.m_nBlockSize);
    EXPECT_EQ(nullptr, unit.m_pReadBuffer);
    EXPECT_EQ("HEADTAIL", Joined(Drain(unit, 1024)));
    ExpectCleared(unit);
}

TEST_F(CQSendFileUnitTest, AReadCountPastTheLengthByMoreThanAnIntAnnouncesIntMin)
{
    // The counts are 64-bit; the int the socket engine reads is clamped at
    // both ends, never wrapped into a positive size.
    CQSendFileUnit unit;
    Prepare(unit, "", "", "");
    unit.m_nPhase = CQSendFileUnit::SFP_File;
    unit.m_nFileRead64 = 4294967296LL;
    EXPECT_EQ(INT_MIN, unit.EnableSendSize());
    ExpectCleared(unit);
}

TEST_F(CQSendFileUnitTest, SetInfoDataIgnoresItsFlagAndRestartsTheTrailer)
{
    CQSendFileUnit unit;
    std::vector<unsigned char> trailer = Bytes("trailer");
    unit.SetInfoData(trailer.data(), 7, true);
    EXPECT_EQ(trailer.data(), unit.m_pInfoData);
    EXPECT_EQ(7, unit.m_nInfoDataLen);
    EXPECT_EQ(0, unit.m_nInfoDataSent);
    unit.m_nInfoDataSent = 3;
    unit.SetInfoData(trailer.data(), 7, false);
    EXPECT_EQ(0, unit.m_nInfoDataSent);
    unit.ClearAll();  // not owned: the trailer is never freed here
    EXPECT_EQ('t', trailer[0]);
}

TEST_F(CQSendFileUnitTest, ANullTrailerCountsAsNone)
{
    CQSendFileUnit unit;
    unit.SetInfoData(nullptr, 50, false);
    EXPECT_EQ(0, unit.m_nInfoDataLen);
    EXPECT_EQ(0, unit.EnableSendSize());
}

TEST_F(CQSendFileUnitTest, SetInfoDataStoresTheLengthAsGiven)
{
    // trailer = data, trailerLength = length, trailerSent = 0, whatever the
    // length: the stream size adds it as it stands.
    CQSendFileUnit unit;
    std::vector<unsigned char> header = Bytes("0123456789");
    std::vector<unsigned char> trailer = Bytes("tail");
    unit.SetData(header.data(), 10, false);
    unit.SetInfoData(trailer.data(), -3);
    EXPECT_EQ(trailer.data(), unit.m_pInfoData);
    EXPECT_EQ(-3, unit.m_nInfoDataLen);
    EXPECT_EQ(0, unit.m_nInfoDataSent);
    EXPECT_EQ(-3 + 0 + 10, unit.EnableSendSize());
    unit.SetInfoData(trailer.data(), 4);
    EXPECT_EQ(4 + 0 + 10, unit.EnableSendSize());
}

TEST_F(CQSendFileUnitTest, ClearAllResetsEverythingAndIsSafeTwice)
{
    CQSendFileUnit unit;
    Prepare(unit, "head", Pattern(3000, 14), "tail", 1024);
    unsigned char* p = nullptr;
    ASSERT_EQ(4, unit.LoadData(&p, 1024));
    ASSERT_EQ(1024, unit.LoadData(&p, 1024));
    unit.m_nResumeBlockSize = 4096;
    unit.ClearAll();
    ExpectCleared(unit);
    unit.ClearAll();
    ExpectCleared(unit);
    EXPECT_EQ(0, unit.EnableSendSize());
}

TEST_F(CQSendFileUnitTest, OwnedHeaderIsFreedByClearAll)
{
    CQSendFileUnit unit;
    WriteFile(dir.File("f.bin"), "x");
    velatest::HeapWatch::Clear();
    unsigned char* header = new unsigned char[32]();
    velatest::HeapWatch::Watch(header);
    unit.SetData(header, 32, true);
    ASSERT_EQ(CQSendFileUnit::KOpened, unit.SetFile(Wide(dir.File("f.bin")), 1024));
    unit.ClearAll();
    EXPECT_TRUE(velatest::HeapWatch::Freed(header));
    ExpectCleared(unit);
}

TEST_F(CQSendFileUnitTest, DestructorReleasesFileAndBuffer)
{
    auto unit = std::make_unique<CQSendFileUnit>();
    Prepare(*unit, "", Pattern(100, 15), "", 1024);
    unsigned char* p = nullptr;
    ASSERT_EQ(100, unit->LoadData(&p, 1024));
    velatest::HeapWatch::Clear();
    const unsigned char* buffer = unit->m_pReadBuffer;
    ASSERT_NE(nullptr, buffer);
    velatest::HeapWatch::Watch(buffer);
    unit.reset();
    EXPECT_TRUE(velatest::HeapWatch::Freed(buffer));
}

// ---------------------------------------------------------------- fatal paths

TEST(CQSendFileUnitDeathTest, AFileThatShrankIsFatal)
{
    velatest::TempDir dir;
    const QString path = dir.File("shrinking.bin");
    WriteFile(path, Pattern(2000));
    EXPECT_DEATH(
        {
            CQSendFileUnit unit;
            unit.SetFile(CQWString(path), 1024);
            unsigned char* p = nullptr;
            unit.LoadData(&p, 1024);
            QFile::resize(path, 1024);  // the recorded length now promises more
            unit.LoadData(&p, 1024);
        },
        "ASSERT: \"FALSE\" in file src/CQSendFileUnit");
}

TEST(CQSendFileUnitDeathTest, FileBytesWithBlockSizeZeroAreFatal)
{
    // No slice of the file can be read: the stream cannot keep its promise.
    velatest::TempDir dir;
    const QString path = dir.File("f.bin");
    WriteFile(path, "abc");
    EXPECT_DEATH(
        {
            CQSendFileUnit unit;
            unit.SetFile(CQWString(path), 0);
            unsigned char* p = nullptr;
            unit.LoadData(&p, 1024);
        },
        "ASSERT: \"FALSE\" in file src/CQSendFileUnit");
}

TEST(CQSendFileUnitDeathTest, NoMemoryForTheReadBufferAtTheFirstSliceIsFatal)
{
    velatest::TempDir dir;
    const QString path = dir.File("f.bin");
    WriteFile(path, "abc");
    EXPECT_DEATH(
        {
            CQSendFileUnit unit;
            const CQWString name(path);
            // As few blocks as opening the file takes; none from then on.
            for (int skip = 0; skip < 16; ++skip) {
                velatest::HeapWatch::FailNothrowAfter(skip);
                if (unit.SetFile(name, 512) == CQSendFileUnit::KOpened)
                    break;
            }
            unsigned char* p = nullptr;
            unit.LoadData(&p, 1024);
        },
        "ASSERT: \"FALSE\" in file src/CQSendFileUnit");
}

TEST(CQSendFileUnitDeathTest, AnUnknownPhaseIsFatalInEnableSendSize)
{
    EXPECT_DEATH(
        {
            CQSendFileUnit unit;
            unit.m_nPhase = 3;  // corrupted by hand
            unit.EnableSendSize();
        },
        "ASSERT: \"FALSE\" in file src/CQSendFileUnit");
}

TEST(CQSendFileUnitDeathTest, AnUnknownPhaseIsFatalInLoadData)
{
    EXPECT_DEATH(
        {
            CQSendFileUnit unit;
            unit.m_nPhase = -1;  // corrupted by hand
            unsigned char* p = nullptr;
            unit.LoadData(&p, 1024);
        },
        "ASSERT: \"FALSE\" in file src/CQSendFileUnit");
}

// ---------------------------------------------------------------- GetBufMd5

// RFC 1321, appendix A.5, and the million-"a" value of the same algorithm
// (more than one 1024-byte piece).
struct Md5Row
{
    const char* name;
    std::string content;
    const char* digest;
};

void PrintTo(const Md5Row& row, std::ostream* os)
{
    *os << row.name << " (" << row.content.size() << " bytes)";
}

class BufMd5Known : public CQSendFileUnitTest, public ::testing::WithParamInterface<Md5Row>
{
};

TEST_P(BufMd5Known, DigestOfTheWholeFile)
{
    const Md5Row& row = GetParam();
    CQSendFileUnit unit;
    Prepare(unit, "", row.content, "");
    EXPECT_EQ(row.digest, TakeMd5(unit.GetBufMd5(static_cast<int>(row.content.size()))));
}

const Md5Row kMd5Rows[] = {
    {"empty", "", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message_digest", "message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"alphabet", "abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"alphanumeric", "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"digits_80", "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
    {"million_a", std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
};

INSTANTIATE_TEST_SUITE_P(Rows, BufMd5Known, ::testing::ValuesIn(kMd5Rows),
                         [](const ::testing::TestParamInfo<Md5Row>& info) { return std::string(info.param.name); });

TEST_F(CQSendFileUnitTest, Md5OfAPrefix)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "abcdef", "");
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", TakeMd5(unit.GetBufMd5(3)));
}

TEST_F(CQSendFileUnitTest, Md5OfSizeZeroIsTheEmptyDigest)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "abcdef", "");
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", TakeMd5(unit.GetBufMd5(0)));
}

TEST_F(CQSendFileUnitTest, Md5PastTheEndCoversTheBytesActuallyRead)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "abc", "");
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", TakeMd5(unit.GetBufMd5(3)));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", TakeMd5(unit.GetBufMd5(4)));
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", TakeMd5(unit.GetBufMd5(100000)));
}

TEST_F(CQSendFileUnitTest, Md5FromTheReadPositionAtTheEndIsTheEmptyDigest)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "abc", "");
    unsigned char buffer[8];
    ASSERT_EQ(3, unit.OLFileLoadData(buffer, 8));
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", TakeMd5(unit.GetBufMd5(10)));
}

TEST_F(CQSendFileUnitTest, Md5OfANegativeSizeIsNull)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "abc", "");
    EXPECT_EQ(nullptr, unit.GetBufMd5(-1));
}

TEST_F(CQSendFileUnitTest, Md5WithoutMemoryIsNullAndKeepsTheReadPosition)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "abcdef", "");
    // No room for the bytes to hash, then none for the digits.
    for (const int skip : {0, 1}) {
        velatest::HeapWatch::FailNothrowAfter(skip);
        char* hex = unit.GetBufMd5(3);
        velatest::HeapWatch::StopFailing();
        EXPECT_EQ(nullptr, hex) << "skip " << skip;
        delete[] hex;
    }
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", TakeMd5(unit.GetBufMd5(3)));
    EXPECT_EQ("abcdef", Joined(Drain(unit, 1024)));
}

TEST_F(CQSendFileUnitTest, Md5WithoutAFileIsTheEmptyDigest)
{
    CQSendFileUnit unit;
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", TakeMd5(unit.GetBufMd5(16)));
}

TEST_F(CQSendFileUnitTest, Md5IsThirtyTwoLowercaseDigitsAndAZero)
{
    CQSendFileUnit unit;
    Prepare(unit, "", Pattern(5000, 16), "");
    char* hex = unit.GetBufMd5(5000);
    ASSERT_NE(nullptr, hex);
    std::unique_ptr<char[]> owned(hex);
    for (int i = 0; i < 32; ++i)
        EXPECT_TRUE((hex[i] >= '0' && hex[i] <= '9') || (hex[i] >= 'a' && hex[i] <= 'f')) << "digit " << i;
    EXPECT_EQ('\0', hex[32]);
}

TEST_F(CQSendFileUnitTest, AfterMd5TheNextLoadDataReturnsTheHashedBytes)
{
    // A file whose bytes 1024..1037 are "message digest", hashed mid-stream:
    // the slice that follows is exactly what was hashed.
    std::string file = Pattern(1024, 17) + "message digest" + Pattern(1010, 18);
    CQSendFileUnit unit;
    Prepare(unit, "", file, "");
    unsigned char* p = nullptr;
    ASSERT_EQ(1024, unit.LoadData(&p, 1024));
    EXPECT_EQ("f96b697d7cb7938d525a2f31aaf161d0", TakeMd5(unit.GetBufMd5(14)));
    EXPECT_EQ(1024, unit.m_nFileRead);  // the read position did not move
    ASSERT_EQ(14, unit.LoadData(&p, 14));
    EXPECT_EQ("message digest", std::string(reinterpret_cast<const char*>(p), 14));
    // Hash the next slice, then load it: the same bytes.
    char* hex = unit.GetBufMd5(1010);
    ASSERT_NE(nullptr, hex);
    std::unique_ptr<char[]> owned(hex);
    ASSERT_EQ(1010, unit.LoadData(&p, 1024));
    char expected[33];
    CCrypt::MD5_HexDigest(p, 1010, expected);
    EXPECT_STREQ(expected, hex);
    EXPECT_EQ(file.substr(1038), std::string(reinterpret_cast<const char*>(p), 1010));
}

// ---------------------------------------------------------------- OLFileLoadData

TEST_F(CQSendFileUnitTest, OLFileLoadDataReadsIntoTheCallersBuffer)
{
    const std::string file = "abcdefghij";
    CQSendFileUnit unit;
    Prepare(unit, "", file, "");
    unsigned char buffer[16] = {};
    ASSERT_EQ(4, unit.OLFileLoadData(buffer, 4));
    EXPECT_EQ("abcd", std::string(reinterpret_cast<const char*>(buffer), 4));
    EXPECT_EQ(4, unit.m_nFileRead);
    // GetBufMd5 seeks back to fileRead: the next block is what it hashed.
    char efg[33];
    CCrypt::MD5_HexDigest(reinterpret_cast<const unsigned char*>("efg"), 3, efg);
    EXPECT_EQ(std::string(efg), TakeMd5(unit.GetBufMd5(3)));
    ASSERT_EQ(3, unit.OLFileLoadData(buffer, 3));
    EXPECT_EQ("efg", std::string(reinterpret_cast<const char*>(buffer), 3));
    EXPECT_EQ(7, unit.m_nFileRead);
    // Short at the end of the file, then nothing.
    ASSERT_EQ(3, unit.OLFileLoadData(buffer, 16));
    EXPECT_EQ("hij", std::string(reinterpret_cast<const char*>(buffer), 3));
    EXPECT_EQ(10, unit.m_nFileRead);
    EXPECT_EQ(0, unit.OLFileLoadData(buffer, 16));
    EXPECT_EQ(10, unit.m_nFileRead);
}

TEST_F(CQSendFileUnitTest, OLFileLoadDataRefusesBadArguments)
{
    CQSendFileUnit unit;
    Prepare(unit, "", "abc", "");
    unsigned char buffer[4];
    EXPECT_EQ(0, unit.OLFileLoadData(nullptr, 3));
    EXPECT_EQ(0, unit.OLFileLoadData(buffer, 0));
    EXPECT_EQ(0, unit.OLFileLoadData(buffer, -1));
    EXPECT_EQ(0, unit.m_nFileRead);
    CQSendFileUnit closed;
    EXPECT_EQ(0, closed.OLFileLoadData(buffer, 3));
    EXPECT_EQ(0, closed.m_nFileRead);
}

TEST_F(CQSendFileUnitTest, ResumeBlockSizeIs10240AfterEveryClearAll)
{
    CQSendFileUnit unit;
    EXPECT_EQ(10240, unit.m_nResumeBlockSize);
    unit.m_nResumeBlockSize = 20000;
    unit.ClearAll();
    EXPECT_EQ(10240, unit.m_nResumeBlockSize);
}

// The upload's walk over a 25000-byte file with block size 10240: blocks
// of 1000, 10240, 10240 and 3520 bytes, each hashed before it is read, each
// hash the MD5 of exactly the bytes then read.
TEST_F(CQSendFileUnitTest, ResumableBlocksAreHashedThenReadWithTheSameBytes)
{
    const std::string file = Pattern(25000, 41);
    CQSendFileUnit unit;
    Prepare(unit, "", file, "");
    std::vector<unsigned char> block(10240);
    int offset = 0;
    for (const int n : {1000, 10240, 10240, 3520}) {
        const std::string hash = TakeMd5(unit.GetBufMd5(n));
        ASSERT_EQ(n, unit.OLFileLoadData(block.data(), n));
        char expected[33];
        CCrypt::MD5_HexDigest(reinterpret_cast<const unsigned char*>(file.data()) + offset,
                              static_cast<unsigned long>(n), expected);
        EXPECT_EQ(std::string(expected), hash) << "block at " << offset;
        EXPECT_EQ(file.substr(static_cast<size_t>(offset), static_cast<size_t>(n)),
                  std::string(reinterpret_cast<const char*>(block.data()), static_cast<size_t>(n)))
            << "block at " << offset;
        offset += n;
        EXPECT_EQ(offset, unit.m_nFileRead);
    }
    // Past the end: the empty digest, and nothing read.
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", TakeMd5(unit.GetBufMd5(10240)));
    EXPECT_EQ(0, unit.OLFileLoadData(block.data(), 10240));
}

}  // namespace

// ---------------------------------------------------------------- files past 2 and 4 GiB
// Sparse files: the length costs no disk space and the holes read as zeros,
// so only the markers and the counts need checking.

namespace {

constexpr long long KTwoGiB = 2147483648LL;
constexpr long long KFourGiB = 4294967296LL;

bool MakeSparse(const QString& path, long long length, const std::vector<std::pair<long long, char>>& markers)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || !file.resize(length))
        return false;
    for (const auto& marker : markers) {
        if (!file.seek(marker.first) || file.write(&marker.second, 1) != 1)
            return false;
    }
    return true;
}

}  // namespace

TEST(CQSendFileUnit64, SetFileRecordsALengthPastAnInt)
{
    velatest::TempDir dir;
    const QString edge = dir.File("edge");
    const QString past = dir.File("past");
    ASSERT_TRUE(MakeSparse(edge, KTwoGiB - 1, {}));
    ASSERT_TRUE(MakeSparse(past, KFourGiB + 10, {}));

    CQSendFileUnit unit;
    ASSERT_EQ(CQSendFileUnit::KOpened, unit.SetFile(Wide(edge), 1024));
    EXPECT_EQ(2147483647, unit.m_nFileLength);
    EXPECT_EQ(KTwoGiB - 1, unit.m_nFileLength64);
    EXPECT_EQ(2147483647, unit.EnableSendSize());

    unit.ClearAll();
    ASSERT_EQ(CQSendFileUnit::KOpened, unit.SetFile(Wide(past), 1024));
    EXPECT_EQ(CQSendFileUnit::KIntSaturated, unit.m_nFileLength);  // never wraps to 10
    EXPECT_EQ(KFourGiB + 10, unit.m_nFileLength64);
    EXPECT_EQ(CQSendFileUnit::KIntSaturated, unit.EnableSendSize());
    unit.ClearAll();
    EXPECT_EQ(0, unit.m_nFileLength64);
    EXPECT_EQ(0, unit.m_nFileRead64);
}

TEST(CQSendFileUnit64, StreamsAFilePast4GiBWhole)
{
    velatest::TempDir dir;
    const QString path = dir.File("big");
    const long long length = KFourGiB + 1234;
    const long long markerA = KTwoGiB + 1;
    const long long markerB = KFourGiB + 5;
    ASSERT_TRUE(MakeSparse(path, length, {{markerA, 'A'}, {markerB, 'B'}, {length - 1, 'Z'}}));

    std::string header = "HEAD";
    std::string trailer = "TAIL!";
    CQSendFileUnit unit;
    const int block = 1 << 20;
    ASSERT_EQ(CQSendFileUnit::KOpened, unit.SetFile(Wide(path), block));
    unit.SetData(reinterpret_cast<unsigned char*>(&header[0]), static_cast<int>(header.size()), false);
    unit.SetInfoData(reinterpret_cast<unsigned char*>(&trailer[0]), static_cast<int>(trailer.size()));

    // Reading gigabytes of holes proves nothing more than a few MiB around
    // each edge: the stream is moved on twice, as if the bytes between had
    // been sent.
    const long long skipTo[] = {KTwoGiB - 3 * block, KFourGiB - 3 * block};
    size_t skips = 0;
    long long skipped = 0;
    long long sent = 0;
    std::string head;
    std::string tail;
    std::string markers;
    bool sawIntFieldsSaturated = false;
    while (unit.EnableSendSize() > 0) {
        unsigned char* p = nullptr;
        const int k = unit.LoadData(&p, block);
        ASSERT_GT(k, 0);
        ASSERT_LE(k, block);
        const long long fileAt = sent - static_cast<long long>(header.size());
        for (const long long at : {markerA, markerB, length - 1}) {
            if (at >= fileAt && at < fileAt + k)
                markers += static_cast<char>(p[at - fileAt]);
        }
        if (sent < static_cast<long long>(header.size()))
            head.append(reinterpret_cast<const char*>(p), static_cast<size_t>(k));
        if (unit.m_nPhase == CQSendFileUnit::SFP_Trailer)
            tail.append(reinterpret_cast<const char*>(p), static_cast<size_t>(k));
        if (unit.m_nFileRead64 > KTwoGiB && unit.m_nFileRead == CQSendFileUnit::KIntSaturated)
            sawIntFieldsSaturated = true;
        sent += k;
        const bool pastPreviousEdge = skips == 0 || unit.m_nFileRead64 > markerA;
        if (skips < 2 && pastPreviousEdge && unit.m_nPhase == CQSendFileUnit::SFP_File &&
            unit.m_nFileRead64 < skipTo[skips]) {
            const long long from = unit.m_nFileRead64;
            ASSERT_EQ(skipTo[skips], unit.m_File.Seek64(skipTo[skips], CQFile::KSeekBegin));
            unit.m_nFileRead64 = skipTo[skips];
            skipped += skipTo[skips] - from;
            sent += skipTo[skips] - from;
            ++skips;
        }
    }
    EXPECT_EQ(2u, skips);
    EXPECT_GT(skipped, 0);
    EXPECT_EQ(static_cast<long long>(header.size()) + length + static_cast<long long>(trailer.size()), sent);
    EXPECT_EQ("HEAD", head);
    EXPECT_EQ("TAIL!", tail);
    EXPECT_EQ("ABZ", markers);
    EXPECT_TRUE(sawIntFieldsSaturated);
    EXPECT_EQ(0, unit.EnableSendSize());  // cleared at the end of the stream
}

TEST(CQSendFileUnit64, Md5PastFourGiBKeepsTheReadPosition)
{
    velatest::TempDir dir;
    const QString path = dir.File("big");
    ASSERT_TRUE(MakeSparse(path, KFourGiB + 8, {{KFourGiB + 2, 'x'}}));
    CQSendFileUnit unit;
    ASSERT_EQ(CQSendFileUnit::KOpened, unit.SetFile(Wide(path), 1024));
    // Put the read position past 4 GiB as an upload would have.
    ASSERT_EQ(KFourGiB, unit.m_File.Seek64(KFourGiB, CQFile::KSeekBegin));
    unit.m_nFileRead64 = KFourGiB;
    const std::string hash = TakeMd5(unit.GetBufMd5(8));
    unsigned char bytes[8] = {0, 0, 'x', 0, 0, 0, 0, 0};
    tagMD5State context;
    CCrypt::MD5_Init(&context);
    CCrypt::MD5_Update(&context, bytes, 8);
    unsigned char digest[16];
    CCrypt::MD5_Final(digest, &context);
    std::string expected;
    for (const unsigned char b : digest) {
        expected += "0123456789abcdef"[b >> 4];
        expected += "0123456789abcdef"[b & 0x0F];
    }
    EXPECT_EQ(expected, hash);
    unsigned char buffer[8] = {};
    EXPECT_EQ(8, unit.OLFileLoadData(buffer, 8));  // the same bytes again
    EXPECT_EQ('x', buffer[2]);
    EXPECT_EQ(KFourGiB + 8, unit.m_nFileRead64);
}
