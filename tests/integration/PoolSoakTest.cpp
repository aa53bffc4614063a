// CMLHttpPool under a long run against nginx on 127.0.0.1: thousands of
// small GETs through a pool of four engines with four requests in flight,
// the test keeping its own queue (the pool has none) and starting the next
// request from inside the completion report. Every request must complete
// with the file's bytes, every engine must be idle at the end, and the
// resident memory must not grow with the number of requests.

#include "src/MLHttpPool.h"

#include "src/DNSCache.h"
#include "src/MLHttpEngine.h"
#include "support/PoolRecorder.h"
#include "support/ServerFixtures.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QFile>
#include <QString>

#include <gtest/gtest.h>

#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

// Sanitizer builds keep freed memory in quarantine and shadow every byte:
// their resident size says nothing about the library's.
#if defined(__SANITIZE_ADDRESS__)
#define VELATEST_MEMORY_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELATEST_MEMORY_SANITIZED 1
#endif
#endif
#ifndef VELATEST_MEMORY_SANITIZED
#define VELATEST_MEMORY_SANITIZED 0
#endif

namespace {

using velatest::NginxServer;
using velatest::PoolRecorder;
using velatest::SpinUntil;

const int KRequests = 2000;
const int KWarmUp = 100;
const int KEngines = 4;
const int KInFlight = 4;
const int KFileSize = 1024;
const int KFirstId = 0x10000;
const qint64 KMaxGrowthBytes = 20LL * 1024 * 1024;
const int KDeadlineMs = 60000;

class DnsCacheDirectory : public ::testing::Environment
{
public:
    void SetUp() override
    {
        m_dir = std::make_unique<velatest::TempDir>();
        CDNSCache::SetCacheDirectory(m_dir->Path());
    }
    void TearDown() override
    {
        CDNSCache::ReleaseRegistered();
        m_dir.reset();
    }

private:
    std::unique_ptr<velatest::TempDir> m_dir;
};

::testing::Environment* const g_dnsEnvironment = ::testing::AddGlobalTestEnvironment(new DnsCacheDirectory);

// Resident set size of this process in bytes (0 when unreadable).
qint64 ResidentBytes()
{
    QFile statm("/proc/self/statm");
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    if (fields.size() < 2)
        return 0;
    return fields[1].toLongLong() * static_cast<qint64>(sysconf(_SC_PAGESIZE));
}

QByteArray FileBytes()
{
    QByteArray bytes(KFileSize, '\0');
    for (int i = 0; i < KFileSize; ++i)
        bytes[i] = static_cast<char>((i * 131 + 7) & 0xff);
    return bytes;
}

// The test's own queue: requests KFirstId .. KFirstId + total - 1, at most
// KInFlight started and not yet ended.
class SoakQueue
{
public:
    SoakQueue(CMLHttpPool& pool, PoolRecorder& rec, const QString& url, const QByteArray& expected, int total)
        : m_pool(pool), m_rec(rec), m_url(url.toLatin1().constData()), m_expected(expected), m_total(total)
    {
        m_rec.m_bKeepLog = false;
        m_rec.m_onTerminal = [this](int id) { OnEnded(id); };
    }
    ~SoakQueue() { m_rec.m_onTerminal = nullptr; }

    // Starts requests while there is room; a refusal (no idle engine) is
    // retried at the next turn.
    void TopUp()
    {
        while (m_next < m_total && m_started - m_ended < KInFlight) {
            if (m_pool.DoGet(m_url, KFirstId + m_next, nullptr) != CMLHttpPool::KStarted) {
                ++m_refusals;
                return;
            }
            ++m_next;
            ++m_started;
        }
    }

    int Ended() const { return m_ended; }
    int Good() const { return m_good; }
    int Refusals() const { return m_refusals; }
    const std::string& FirstFailure() const { return m_firstFailure; }

private:
    void OnEnded(int id)
    {
        ++m_ended;
        velatest::PoolRequestRecord& r = m_rec.Of(id);
        const std::vector<std::string> expectedTrace{"event 32", "header 200", "data", "complete"};
        if (r.trace == expectedTrace && r.body == m_expected && r.terminalReports == 1) {
            ++m_good;
        } else if (m_firstFailure.empty()) {
            m_firstFailure = "request " + std::to_string(id - KFirstId) + ":";
            for (const std::string& t : r.trace)
                m_firstFailure += " [" + t + "]";
            m_firstFailure += " body " + std::to_string(r.body.size()) + " bytes";
        }
        m_rec.Forget(id);
        // Started from inside the report: the engine that reported is idle.
        TopUp();
    }

    CMLHttpPool& m_pool;
    PoolRecorder& m_rec;
    CQSString m_url;
    QByteArray m_expected;
    int m_total;
    int m_next = 0;
    int m_started = 0;
    int m_ended = 0;
    int m_good = 0;
    int m_refusals = 0;
    std::string m_firstFailure;
};

TEST(PoolSoakTest, TwoThousandSmallGetsCompleteWithoutStuckEnginesOrMemoryGrowth)
{
    NginxServer nginx;
    const QByteArray bytes = FileBytes();
    ASSERT_TRUE(nginx.AddFile("kib.bin", bytes));
    ASSERT_TRUE(nginx.Start()) << nginx.Error().toStdString();

    PoolRecorder rec;
    std::unique_ptr<CMLHttpPool> pool(CMLHttpPool::NewL(&rec, nullptr, KEngines));
    SoakQueue queue(*pool, rec, nginx.Url("/kib.bin"), bytes, KRequests);

    queue.TopUp();
    ASSERT_TRUE(SpinUntil(
        [&] {
            queue.TopUp();
            return queue.Ended() >= KWarmUp;
        },
        KDeadlineMs))
        << queue.Ended() << " ended of the warm-up";
    const qint64 residentAfterWarmUp = ResidentBytes();

    ASSERT_TRUE(SpinUntil(
        [&] {
            queue.TopUp();
            return queue.Ended() >= KRequests;
        },
        KDeadlineMs))
        << queue.Ended() << " ended of " << KRequests;
    const qint64 residentAtEnd = ResidentBytes();

    EXPECT_EQ(KRequests, queue.Good()) << queue.FirstFailure();
    EXPECT_EQ(KRequests, rec.TerminalReports()) << "exactly one terminal report per request";
    for (int i = 0; i < pool->GetEngineCount(); ++i)
        EXPECT_TRUE(pool->GetEngine(i)->IsIdle()) << "engine " << i;
    velatest::ProcessPendingEvents();
    EXPECT_EQ(KRequests, rec.TerminalReports()) << "no report after the end";

    RecordProperty("resident_growth_bytes", std::to_string(residentAtEnd - residentAfterWarmUp));
    RecordProperty("refused_starts", std::to_string(queue.Refusals()));
    if (VELATEST_MEMORY_SANITIZED) {
        std::cout << "resident growth not checked in a sanitizer build ("
                  << (residentAtEnd - residentAfterWarmUp) / 1024 << " KiB)\n";
    } else {
        ASSERT_GT(residentAfterWarmUp, 0) << "/proc/self/statm unreadable";
        EXPECT_LT(residentAtEnd - residentAfterWarmUp, KMaxGrowthBytes)
            << "after warm-up " << residentAfterWarmUp << " bytes, at the end " << residentAtEnd;
    }
}

}  // namespace
