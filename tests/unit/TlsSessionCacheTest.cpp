// The TLS session cache: which origin and which trust a session is offered
// to, how long it lives, and which one goes when the cache is full. Times
// are given explicitly (milliseconds of a monotonic clock).

#include "src/internal/TlsSessionCache_p.h"

#include <QSslCertificate>

#include <gtest/gtest.h>

namespace {

using velanet::TlsSessionCache;

// Two self-signed CA certificates (EC P-256) standing for two trust lists.
const char KCaOne[] =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBmzCCAUGgAwIBAgIUPogIbtJFYuv/JpHAhAdEeHHDFAYwCgYIKoZIzj0EAwIw\n"
    "IjEgMB4GA1UEAwwXdmVsYW5ldCBjYWNoZSB0ZXN0IENBIDEwIBcNMjYxMTI1MTAx\n"
    "ODM0WhgPMjEyNjExMDExMDE4MzRaMCIxIDAeBgNVBAMMF3ZlbGFuZXQgY2FjaGUg\n"
    "dGVzdCBDQSAxMFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAE5OXmRglHZ4K40i2Y\n"
    "Vpt3Yu9T8wmpgT40EmUmQUX1uI26BaYPBqh+9fhr1V5rbB3TJq+BCDuF2sEPomW9\n"
    "h/PNLaNTMFEwHQYDVR0OBBYEFJZguHdYYVSCBeI/YNji3O89e9SYMB8GA1UdIwQY\n"
    "MBaAFJZguHdYYVSCBeI/YNji3O89e9SYMA8GA1UdEwEB/wQFMAMBAf8wCgYIKoZI\n"
    "zj0EAwIDSAAwRQIhAJ/BYt+ZSDaDqeUSUNcG/xWhHiwx97Q9KyjUqAx0LSXrAiAX\n"
    "jC1Pol076DGjCKSgZhPkYA3Dy+nrzDNyInFNSPpLWQ==\n"
    "-----END CERTIFICATE-----\n";
const char KCaTwo[] =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBmjCCAUGgAwIBAgIUPAlhlujPwJ9kyynKkwvCAvAfZhkwCgYIKoZIzj0EAwIw\n"
    "IjEgMB4GA1UEAwwXdmVsYW5ldCBjYWNoZSB0ZXN0IENBIDIwIBcNMjYxMTI1MTAx\n"
    "ODM0WhgPMjEyNjExMDExMDE4MzRaMCIxIDAeBgNVBAMMF3ZlbGFuZXQgY2FjaGUg\n"
    "dGVzdCBDQSAyMFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEpPGt30SFEOt79ld+\n"
    "dwgebzO60idIM1cI1t+h28CL3NBZXci+sjCn5DGH0EGBQVQtLi1luUeVdV/D9Fvc\n"
    "sYVT2qNTMFEwHQYDVR0OBBYEFGSF4PV1lwUQJ2H4xKh5JUxwEDoJMB8GA1UdIwQY\n"
    "MBaAFGSF4PV1lwUQJ2H4xKh5JUxwEDoJMA8GA1UdEwEB/wQFMAMBAf8wCgYIKoZI\n"
    "zj0EAwIDRwAwRAIgPnJSl94O0dwcq2EOq/BjxDP0CKcODhkpYb7KDMj+MBMCIBjc\n"
    "ocp7WwzHZw+tpo30/KCp949Buyca7pzA6ndDF654\n"
    "-----END CERTIFICATE-----\n";

class TlsSessionCacheTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        caOne = QSslCertificate(QByteArray(KCaOne), QSsl::Pem);
        caTwo = QSslCertificate(QByteArray(KCaTwo), QSsl::Pem);
        ASSERT_FALSE(caOne.isNull());
        ASSERT_FALSE(caTwo.isNull());
        ASSERT_NE(caOne, caTwo);
        trusted = {caOne};
    }

    QSslCertificate caOne;
    QSslCertificate caTwo;
    QList<QSslCertificate> trusted;
    TlsSessionCache cache;
    const QByteArray session = "session-a";
};

TEST_F(TlsSessionCacheTest, EmptyCacheFindsNothing)
{
    EXPECT_TRUE(cache.Find("example.test", 443, trusted, 0).isEmpty());
    EXPECT_EQ(0, cache.Count());
}

TEST_F(TlsSessionCacheTest, SessionIsFoundForItsHostAndPort)
{
    cache.Store("example.test", 443, trusted, session, 0, 1000);
    EXPECT_EQ(session, cache.Find("example.test", 443, trusted, 1001));
    EXPECT_EQ(1, cache.Count());
}

TEST_F(TlsSessionCacheTest, HostNameIsMatchedWithoutRegardToCase)
{
    cache.Store("Example.TEST", 443, trusted, session, 0, 0);
    EXPECT_EQ(session, cache.Find("example.test", 443, trusted, 1));
}

TEST_F(TlsSessionCacheTest, SessionIsNeverOfferedToAnotherHost)
{
    cache.Store("a.example.test", 443, trusted, session, 0, 0);
    EXPECT_TRUE(cache.Find("b.example.test", 443, trusted, 1).isEmpty());
    EXPECT_TRUE(cache.Find("example.test", 443, trusted, 1).isEmpty());
    EXPECT_TRUE(cache.Find("127.0.0.1", 443, trusted, 1).isEmpty());
}

TEST_F(TlsSessionCacheTest, SessionIsNeverOfferedToAnotherPort)
{
    cache.Store("example.test", 443, trusted, session, 0, 0);
    EXPECT_TRUE(cache.Find("example.test", 8443, trusted, 1).isEmpty());
    EXPECT_TRUE(cache.Find("example.test", 444, trusted, 1).isEmpty());
}

TEST_F(TlsSessionCacheTest, SessionIsNotOfferedUnderOtherTrust)
{
    cache.Store("example.test", 443, trusted, session, 0, 0);
    EXPECT_TRUE(cache.Find("example.test", 443, {caTwo}, 1).isEmpty());
    EXPECT_TRUE(cache.Find("example.test", 443, {}, 1).isEmpty());
    // A CA added since: the list differs, so the next handshake verifies in full.
    EXPECT_TRUE(cache.Find("example.test", 443, {caOne, caTwo}, 1).isEmpty());
    EXPECT_EQ(session, cache.Find("example.test", 443, {caOne}, 1));
}

TEST_F(TlsSessionCacheTest, LaterSessionReplacesTheEarlierOne)
{
    cache.Store("example.test", 443, trusted, session, 0, 0);
    cache.Store("example.test", 443, trusted, "session-b", 0, 1);
    EXPECT_EQ(QByteArray("session-b"), cache.Find("example.test", 443, trusted, 2));
    EXPECT_EQ(1, cache.Count());
}

TEST_F(TlsSessionCacheTest, EmptySessionStoresNothing)
{
    cache.Store("example.test", 443, trusted, QByteArray(), 0, 0);
    EXPECT_EQ(0, cache.Count());
}

TEST_F(TlsSessionCacheTest, SessionLivesForTheServersHint)
{
    cache.Store("example.test", 443, trusted, session, 10, 5000);
    EXPECT_EQ(session, cache.Find("example.test", 443, trusted, 5000 + 10 * 1000 - 1));
    EXPECT_TRUE(cache.Find("example.test", 443, trusted, 5000 + 10 * 1000).isEmpty());
    EXPECT_EQ(0, cache.Count());
}

TEST_F(TlsSessionCacheTest, SessionWithoutHintLivesTheDefaultLifetime)
{
    cache.Store("example.test", 443, trusted, session, 0, 0);
    EXPECT_EQ(session, cache.Find("example.test", 443, trusted, TlsSessionCache::KDefaultLifetimeMs - 1));
    EXPECT_TRUE(cache.Find("example.test", 443, trusted, TlsSessionCache::KDefaultLifetimeMs).isEmpty());
}

TEST_F(TlsSessionCacheTest, LongHintIsCutToTheLongestLifetime)
{
    cache.Store("example.test", 443, trusted, session, 7 * 24 * 3600, 0);
    EXPECT_EQ(session, cache.Find("example.test", 443, trusted, TlsSessionCache::KMaxLifetimeMs - 1));
    EXPECT_TRUE(cache.Find("example.test", 443, trusted, TlsSessionCache::KMaxLifetimeMs).isEmpty());
}

TEST_F(TlsSessionCacheTest, FullCacheHoldsItsLimit)
{
    for (int i = 0; i < TlsSessionCache::KMaxEntries; ++i)
        cache.Store(QString("h%1.test").arg(i), 443, trusted, session, 0, 0);
    EXPECT_EQ(TlsSessionCache::KMaxEntries, cache.Count());
    for (int i = 0; i < TlsSessionCache::KMaxEntries; ++i)
        EXPECT_EQ(session, cache.Find(QString("h%1.test").arg(i), 443, trusted, 1)) << i;
}

TEST_F(TlsSessionCacheTest, OneMoreThanTheLimitDropsTheLeastRecentlyUsed)
{
    for (int i = 0; i < TlsSessionCache::KMaxEntries; ++i)
        cache.Store(QString("h%1.test").arg(i), 443, trusted, session, 0, 0);
    // h0 was used again, so h1 is now the least recently used.
    EXPECT_EQ(session, cache.Find("h0.test", 443, trusted, 1));
    cache.Store("new.test", 443, trusted, session, 0, 2);
    EXPECT_EQ(TlsSessionCache::KMaxEntries, cache.Count());
    EXPECT_TRUE(cache.Find("h1.test", 443, trusted, 3).isEmpty());
    EXPECT_EQ(session, cache.Find("h0.test", 443, trusted, 3));
    EXPECT_EQ(session, cache.Find("new.test", 443, trusted, 3));
}

TEST_F(TlsSessionCacheTest, ForgetDropsOnlyThatOrigin)
{
    cache.Store("example.test", 443, trusted, session, 0, 0);
    cache.Store("example.test", 8443, trusted, session, 0, 0);
    cache.Forget("EXAMPLE.test", 443);
    EXPECT_TRUE(cache.Find("example.test", 443, trusted, 1).isEmpty());
    EXPECT_EQ(session, cache.Find("example.test", 8443, trusted, 1));
    cache.Forget("example.test", 443);  // twice is harmless
    cache.Clear();
    EXPECT_EQ(0, cache.Count());
}

}  // namespace
