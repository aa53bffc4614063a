#include "src/CookieHolder.h"

#include "BaseClass/src/CQFile.h"
#include "src/internal/CookieFile_p.h"
#include "support/HeapWatch.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QStringList>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

void PrintTo(const QCookieValue& value, std::ostream* os)
{
    *os << "{name '" << value.name.GetDataPtr() << "' (" << value.name.GetLength() << "), value '"
        << value.value.GetDataPtr() << "' (" << value.value.GetLength() << "), expires " << value.expires << "}";
}

bool operator==(const QCookieValue& a, const QCookieValue& b)
{
    return a.expires == b.expires && a.name == b.name && a.value == b.value;
}

namespace {

// The time value of a date on the 30-day-month calendar, unsigned 32-bit.
constexpr std::uint32_t Calendar(std::uint32_t year, std::uint32_t month, std::uint32_t day, std::uint32_t hour,
                                 std::uint32_t minute, std::uint32_t second)
{
    return month * 2592000u + day * 86400u + hour * 3600u + minute * 60u + second + (year - 1970u) * 31536000u;
}

const char KFutureDate[] = "Fri, 01 Jan 2100 00:00:00 GMT";
constexpr std::uint32_t KFuture = Calendar(2100, 0, 1, 0, 0, 0);
constexpr std::uint32_t KPast = Calendar(2001, 0, 1, 0, 0, 0);

QCookieValue Cookie(const char* name, const char* value, unsigned int expires)
{
    QCookieValue cookie;
    cookie.name = name;
    cookie.value = value;
    cookie.expires = expires;
    return cookie;
}

QByteArray Record(const QByteArray& name, const QByteArray& value, const QByteArray& domain, std::uint32_t expires)
{
    return name + "\r\n" + value + "\r\n" + domain + "\r\n" + QByteArray::number(expires) + "\r\n";
}

QByteArray Contents(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

bool WriteFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

// Every cookie of a table, in its getall order.
std::vector<QCookieValue> Values(CQHashTable<QCookieValue>* table)
{
    std::vector<QCookieValue> out;
    if (table == nullptr)
        return out;
    const int count = table->GetCount();
    QCookieValue** all = table->getall();
    for (int i = 0; i < count; ++i)
        out.push_back(*all[i]);
    return out;
}

// The getall order of a table into which names were put in this order.
std::vector<std::string> TableOrder(const std::vector<std::string>& insertOrder)
{
    CQHashTable<std::string> table;
    for (const std::string& name : insertOrder)
        table.put(CQSString(name.c_str()), new std::string(name));
    std::vector<std::string> out;
    const int count = table.GetCount();
    std::string** all = table.getall();
    for (int i = 0; i < count; ++i)
        out.push_back(*all[i]);
    return out;
}

std::string Visible(const QByteArray& bytes)
{
    return velatest::Visible(bytes);
}

class CookieHolderTest : public ::testing::Test
{
protected:
    CQWString Base() const { return CQWString(m_dir.Path()); }
    QString CookieDir() const { return m_dir.Path() + "/Cookies"; }
    QString CookieFile(const QString& name) const { return CookieDir() + "/" + name; }
    // Every entry of the cookie directory, hidden ones included.
    QStringList Listing() const
    {
        return QDir(CookieDir()).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                           QDir::Name);
    }

    // A Set-Cookie value received for url.
    int Parse(QCookieHolder& holder, const char* url, const char* text)
    {
        return holder.ParseCookie(CQSString(url), CQSString(text));
    }

    std::vector<QCookieValue> CookiesFor(QCookieHolder& holder, const char* host)
    {
        std::unique_ptr<CQHashTable<QCookieValue>> table(holder.GetCookie(CQSString(host), true));
        EXPECT_NE(nullptr, table.get()) << host;
        return Values(table.get());
    }

    // Writes a cookie file by hand into the (created) cookie directory.
    void PutFile(const QString& name, const QByteArray& bytes)
    {
        QDir().mkpath(CookieDir());
        ASSERT_TRUE(WriteFile(CookieFile(name), bytes));
    }

    velatest::TempDir m_dir;
};

}  // namespace

// ---- QCookieValue and QCookie --------------------------------------------

TEST(QCookieValueTest, AssignmentCopiesAllFields)
{
    QCookieValue a = Cookie("n", "v", 42);
    QCookieValue b;
    b = a;
    EXPECT_EQ(Cookie("n", "v", 42), b);
    a.name = "changed";
    EXPECT_EQ(Cookie("n", "v", 42), b);
}

TEST(QCookieTest, NewCookieIsEmptyAndUnmodified)
{
    QCookie cookie;
    EXPECT_TRUE(cookie.domain.IsEmpty());
    EXPECT_EQ(0, cookie.values.GetCount());
    EXPECT_FALSE(cookie.modified);
}

TEST(QCookieTest, SetCookieRefusesNullNameOrValue)
{
    QCookie cookie;
    const CQSString text("x");
    EXPECT_FALSE(cookie.SetCookie(nullptr, &text, 1, true));
    EXPECT_FALSE(cookie.SetCookie(&text, nullptr, 1, true));
    EXPECT_EQ(0, cookie.values.GetCount());
    EXPECT_FALSE(cookie.modified);
}

TEST(QCookieTest, SetCookieStoresCopies)
{
    QCookie cookie;
    CQSString name("sid");
    CQSString value("ab12");
    EXPECT_TRUE(cookie.SetCookie(&name, &value, 7, true));
    name = "other";
    value = "changed";
    QCookieValue* stored = cookie.GetCookie(CQSString("sid"));
    ASSERT_NE(nullptr, stored);
    EXPECT_EQ(Cookie("sid", "ab12", 7), *stored);
    EXPECT_TRUE(cookie.modified);
}

TEST(QCookieTest, SetCookieOverwritesValueAndExpiryOfTheSameName)
{
    QCookie cookie;
    const CQSString name("sid");
    const CQSString first("one");
    const CQSString second("two");
    ASSERT_TRUE(cookie.SetCookie(&name, &first, 7, false));
    QCookieValue* stored = cookie.GetCookie(name);
    ASSERT_TRUE(cookie.SetCookie(&name, &second, 9, false));
    EXPECT_EQ(1, cookie.values.GetCount());
    EXPECT_EQ(stored, cookie.GetCookie(name));
    EXPECT_EQ(Cookie("sid", "two", 9), *stored);
}

TEST(QCookieTest, SetCookieSetsModifiedToTheGivenFlag)
{
    QCookie cookie;
    const CQSString name("a");
    const CQSString value("b");
    ASSERT_TRUE(cookie.SetCookie(&name, &value, 0, true));
    EXPECT_TRUE(cookie.modified);
    ASSERT_TRUE(cookie.SetCookie(&name, &value, 0, false));
    EXPECT_FALSE(cookie.modified);
}

TEST(QCookieTest, MissingNameGivesNull)
{
    QCookie cookie;
    EXPECT_EQ(nullptr, cookie.GetCookie(CQSString("none")));
}

TEST(QCookieTest, SnapshotHoldsEveryValueInTableOrder)
{
    QCookie cookie;
    const std::vector<std::string> names = {"a", "b", "c", "sid", "token", "x1", "x2", "lang", "theme",
                                            "cart", "seen", "zz", "q"};
    for (const std::string& name : names) {
        const CQSString key(name.c_str());
        const CQSString value((name + "-v").c_str());
        ASSERT_TRUE(cookie.SetCookie(&key, &value, 0, true));
    }
    ASSERT_EQ(static_cast<int>(names.size()), cookie.values.GetCount());
    QCookieValue** all = cookie.GetCookie();
    std::vector<std::string> order;
    for (int i = 0; i < cookie.values.GetCount(); ++i)
        order.push_back(all[i]->name.GetDataPtr());
    EXPECT_EQ(TableOrder(names), order);
}

TEST(QCookieTest, DomainHoldsAtMostTheLimitOfNames)
{
    QCookie cookie;
    const CQSString value("v");
    for (int i = 0; i < QCookie::KMaxCookiesPerDomain; ++i) {
        const CQSString name(("n" + std::to_string(i)).c_str());
        ASSERT_TRUE(cookie.SetCookie(&name, &value, 0, false)) << i;
    }
    EXPECT_EQ(1000, cookie.values.GetCount());
    const CQSString extra("one-too-many");
    EXPECT_FALSE(cookie.SetCookie(&extra, &value, 0, true));
    EXPECT_FALSE(cookie.modified);
    EXPECT_EQ(1000, cookie.values.GetCount());
    EXPECT_EQ(nullptr, cookie.GetCookie(extra));

    const CQSString existing("n999");
    const CQSString changed("changed");
    EXPECT_TRUE(cookie.SetCookie(&existing, &changed, 3, true));
    EXPECT_EQ(Cookie("n999", "changed", 3), *cookie.GetCookie(existing));
}

// ---- ParseCookie and GetCookie -------------------------------------------

TEST_F(CookieHolderTest, DomainAttributeStoresUnderTheDomainAndServesItsSubdomains)
{
    QCookieHolder holder;
    EXPECT_EQ(1, Parse(holder, "//mail.shop.org/x", "SID=abc; Path=/; Domain=.shop.org"));
    QCookie* cookie = holder.cookies.get(CQSString("shop.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(1, holder.cookies.GetCount());
    EXPECT_EQ(CQSString("shop.org"), cookie->domain);
    ASSERT_NE(nullptr, cookie->GetCookie(CQSString("SID")));
    EXPECT_EQ(Cookie("SID", "abc", 0), *cookie->GetCookie(CQSString("SID")));

    EXPECT_EQ(std::vector<QCookieValue>{Cookie("SID", "abc", 0)}, CookiesFor(holder, "mail.shop.org"));
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(holder, "other.net"));
}

TEST_F(CookieHolderTest, DomainFileIsNamedAfterTheDomain)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, "//mail.shop.org/x", "SID=abc; Path=/; Domain=.shop.org"));
    holder.Save2File();
    EXPECT_EQ(QStringList{"zorb@shop.org.txt"}, Listing());
    EXPECT_EQ(Visible("SID\r\nabc\r\nshop.org\r\n0\r\n"), Visible(Contents(CookieFile("zorb@shop.org.txt"))));
}

TEST_F(CookieHolderTest, MoreSpecificDomainWins)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//mail.shop.org/", "id=parent; Domain=shop.org"));
    ASSERT_EQ(1, Parse(holder, "//mail.shop.org/", "id=child"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("id", "child", 0)}, CookiesFor(holder, "mail.shop.org"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("id", "parent", 0)}, CookiesFor(holder, "shop.org"));
}

TEST_F(CookieHolderTest, WithoutDomainTheRequestHostIsUsedWithoutPortAndPath)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//mail.shop.org:8080/p", "k=v"));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("mail.shop.org")));
    EXPECT_EQ(1, holder.cookies.GetCount());
}

TEST_F(CookieHolderTest, FullUrlGivesItsHost)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "http://srv.test:8080/news?id=7", "sid=ab12"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("sid", "ab12", 0)}, CookiesFor(holder, "srv.test"));
}

TEST_F(CookieHolderTest, CookieWithoutAttributesIsASessionCookieThatDoesNotSurviveALoad)
{
    {
        QCookieHolder holder;
        holder.ConstructL(Base());
        ASSERT_EQ(1, Parse(holder, "//plain.org/", "x=1"));
        EXPECT_EQ(std::vector<QCookieValue>{Cookie("x", "1", 0)}, CookiesFor(holder, "plain.org"));
        holder.Save2File();
        EXPECT_EQ(Record("x", "1", "plain.org", 0), Contents(CookieFile("zorb@plain.org.txt")));
    }
    QCookieHolder reloaded;
    reloaded.ConstructL(Base());
    EXPECT_EQ(0, reloaded.cookies.GetCount());
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(reloaded, "plain.org"));
    EXPECT_FALSE(QFileInfo::exists(CookieFile("zorb@plain.org.txt")));
}

TEST_F(CookieHolderTest, LeadingEqualsLeavesNoValue)
{
    QCookieHolder holder;
    EXPECT_EQ(0, Parse(holder, "//a.org/", "=v"));
    EXPECT_EQ(0, holder.cookies.GetCount());
}

TEST_F(CookieHolderTest, EmptyTextIgnored)
{
    QCookieHolder holder;
    EXPECT_EQ(0, Parse(holder, "//a.org/", ""));
    EXPECT_EQ(0, holder.cookies.GetCount());
}

TEST_F(CookieHolderTest, NameWithoutValueIgnored)
{
    QCookieHolder holder;
    EXPECT_EQ(0, Parse(holder, "//a.org/", "SID"));
    EXPECT_EQ(0, Parse(holder, "//a.org/", "SID="));
    EXPECT_EQ(0, Parse(holder, "//a.org/", "SID=   "));
    EXPECT_EQ(0, Parse(holder, "//a.org/", " ;,= "));
    EXPECT_EQ(0, holder.cookies.GetCount());
}

TEST_F(CookieHolderTest, ImmediateSemicolonStoresAnEmptyValue)
{
    QCookieHolder holder;
    EXPECT_EQ(1, Parse(holder, "//a.org/", "SID=; path=/"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("SID", "", 0)}, CookiesFor(holder, "a.org"));
}

TEST_F(CookieHolderTest, DomainOf127BytesIsUsed)
{
    const std::string domain = std::string(123, 'd') + ".com";
    ASSERT_EQ(127u, domain.size());
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//req.host/", ("k=v; domain=" + domain).c_str()));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString(domain.c_str())));
    EXPECT_EQ(nullptr, holder.cookies.get(CQSString("req.host")));
}

TEST_F(CookieHolderTest, DomainOf128BytesIsIgnored)
{
    const std::string domain = std::string(124, 'd') + ".com";
    ASSERT_EQ(128u, domain.size());
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//req.host/", ("k=v; domain=" + domain).c_str()));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("req.host")));
    EXPECT_EQ(1, holder.cookies.GetCount());
}

TEST_F(CookieHolderTest, DomainWithLeadingDotCountsTheDot)
{
    // ".x" with 127 bytes after the dot is 128 bytes of attribute text.
    const std::string domain = "." + std::string(123, 'd') + ".com";
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//req.host/", ("k=v; domain=" + domain).c_str()));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("req.host")));
}

TEST_F(CookieHolderTest, RequestHostOf128BytesLeavesAnEmptyDomain)
{
    const std::string host = std::string(124, 'h') + ".com";
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, ("//" + host + "/").c_str(), "k=v"));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("")));
    holder.Save2File();
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, ExpiresIsParsed)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v; expires=Fri, 01 Jan 2100 00:00:00 GMT; path=/"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "v", KFuture)}, CookiesFor(holder, "a.org"));
}

TEST_F(CookieHolderTest, LaterExpiresReplacesEarlier)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/",
                       "k=v; expires=Fri, 01 Jan 2100 00:00:00 GMT; expires=Sat, 02 Jan 2100 00:00:00 GMT"));
    EXPECT_EQ(Calendar(2100, 0, 2, 0, 0, 0), holder.cookies.get(CQSString("a.org"))->GetCookie(CQSString("k"))->expires);
}

TEST_F(CookieHolderTest, UnreadableExpiresMakesASessionCookie)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v; expires=Fri, 01 Jan 2100 00:00:00 GMT; expires=soon"));
    EXPECT_EQ(0u, holder.cookies.get(CQSString("a.org"))->GetCookie(CQSString("k"))->expires);
}

TEST_F(CookieHolderTest, EmptyExpiresIsIgnored)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v; expires=Fri, 01 Jan 2100 00:00:00 GMT; expires="));
    EXPECT_EQ(KFuture, holder.cookies.get(CQSString("a.org"))->GetCookie(CQSString("k"))->expires);
}

TEST_F(CookieHolderTest, AttributeNamesIgnoreCase)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//www.b.org/", "k=v; EXPIRES=Fri, 01 Jan 2100 00:00:00 GMT; DoMaIn=b.org"));
    QCookie* cookie = holder.cookies.get(CQSString("b.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(KFuture, cookie->GetCookie(CQSString("k"))->expires);
}

TEST_F(CookieHolderTest, DomainAttributeLosesSchemePortAndPath)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//req.host/", "k=v; domain=//x.org:81/p"));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("x.org")));
}

TEST_F(CookieHolderTest, DomainIsTakenAsGivenWithoutAHostCheck)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//evil.example/", "k=v; domain=bank.example"));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("bank.example")));
    EXPECT_EQ(nullptr, holder.cookies.get(CQSString("evil.example")));
}

TEST_F(CookieHolderTest, DomainIsNotLowerCased)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//req.host/", "k=v; domain=Shop.ORG"));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("Shop.ORG")));
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(holder, "shop.org"));
}

TEST_F(CookieHolderTest, OtherAttributesAreIgnored)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v; Max-Age=0; Secure; HttpOnly; Version=1; Path=/only"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "v", 0)}, CookiesFor(holder, "a.org"));
}

TEST_F(CookieHolderTest, SameNameOverwrites)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=one; expires=Fri, 01 Jan 2100 00:00:00 GMT"));
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=two"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "two", 0)}, CookiesFor(holder, "a.org"));
}

TEST_F(CookieHolderTest, EmptyQuotedNameSkipsTheAttributes)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//req.host/", "\"\"=v; domain=x.org"));
    EXPECT_EQ(nullptr, holder.cookies.get(CQSString("x.org")));
    // The closing quote ends the name, so the value starts at the "=".
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("", "=v", 0)}, CookiesFor(holder, "req.host"));
}

TEST_F(CookieHolderTest, ValueKeepsTrailingBlanksAndQuotes)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k= \"quoted value\" ; path=/"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "\"quoted value\" ", 0)}, CookiesFor(holder, "a.org"));
}

TEST_F(CookieHolderTest, NewNameForAFullDomainIsRefused)
{
    QCookieHolder holder;
    for (int i = 0; i < QCookie::KMaxCookiesPerDomain; ++i)
        ASSERT_EQ(1, Parse(holder, "//full.org/", ("n" + std::to_string(i) + "=v").c_str())) << i;
    EXPECT_EQ(0, Parse(holder, "//full.org/", "extra=v"));
    EXPECT_EQ(1, Parse(holder, "//full.org/", "n5=updated"));
    EXPECT_EQ(1, Parse(holder, "//www.full.org/", "extra=v"));
    const std::vector<QCookieValue> sent = CookiesFor(holder, "www.full.org");
    EXPECT_EQ(1001u, sent.size());
}

TEST_F(CookieHolderTest, ParsedCookiesAreMarkedModified)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    EXPECT_TRUE(holder.cookies.get(CQSString("a.org"))->modified);
}

TEST_F(CookieHolderTest, EmptyHostGivesNull)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    EXPECT_EQ(nullptr, holder.GetCookie(CQSString(""), true));
}

TEST_F(CookieHolderTest, WalksUpToTheTopLabel)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//x/", "top=1; domain=org"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("top", "1", 0)}, CookiesFor(holder, "mail.shop.org"));
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(holder, "mail.shop.net"));
}

TEST_F(CookieHolderTest, ResultOrderIsMostSpecificDomainFirstThenTableOrder)
{
    QCookieHolder holder;
    const std::vector<std::string> childNames = {"c1", "shared", "c2", "c3"};
    const std::vector<std::string> parentNames = {"p1", "shared", "p2", "p3", "p4"};
    const std::vector<std::string> topNames = {"t1", "p2"};
    for (const std::string& name : childNames)
        ASSERT_EQ(1, Parse(holder, "//mail.shop.org/", (name + "=child").c_str()));
    for (const std::string& name : parentNames)
        ASSERT_EQ(1, Parse(holder, "//x/", (name + "=parent; domain=shop.org").c_str()));
    for (const std::string& name : topNames)
        ASSERT_EQ(1, Parse(holder, "//x/", (name + "=top; domain=org").c_str()));

    // Each domain's names in its table order; the result table gets them in
    // that sequence, the first of each name winning.
    std::vector<std::string> insertOrder;
    for (const auto& domain : {std::make_pair(childNames, "child"), std::make_pair(parentNames, "parent"),
                               std::make_pair(topNames, "top")}) {
        for (const std::string& name : TableOrder(domain.first)) {
            bool taken = false;
            for (const std::string& seen : insertOrder)
                taken = taken || seen == name;
            if (!taken)
                insertOrder.push_back(name);
        }
    }
    const std::vector<std::string> expectedOrder = TableOrder(insertOrder);

    const std::vector<QCookieValue> got = CookiesFor(holder, "mail.shop.org");
    ASSERT_EQ(expectedOrder.size(), got.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        const std::string name = expectedOrder[i];
        const char* value = name[0] == 'c' || name == "shared" ? "child" : name[0] == 't' ? "top" : "parent";
        EXPECT_EQ(Cookie(name.c_str(), value, 0), got[i]) << "position " << i;
    }
}

TEST_F(CookieHolderTest, ExpiredCookiesAreSkippedButKept)
{
    QCookieHolder holder;
    QCookie* cookie = new QCookie;
    cookie->domain = "a.org";
    const CQSString oldName("old");
    const CQSString newName("new");
    const CQSString value("v");
    ASSERT_TRUE(cookie->SetCookie(&oldName, &value, KPast, true));
    ASSERT_TRUE(cookie->SetCookie(&newName, &value, KFuture, true));
    holder.cookies.put(CQSString("a.org"), cookie);

    EXPECT_EQ(std::vector<QCookieValue>{Cookie("new", "v", KFuture)}, CookiesFor(holder, "a.org"));
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("a.org"))->GetCookie(oldName));
}

TEST_F(CookieHolderTest, ExpiredSpecificCookieDoesNotHideTheParentOne)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//www.a.org/", "id=old; expires=Mon, 01 Jan 2001 00:00:00 GMT"));
    ASSERT_EQ(1, Parse(holder, "//www.a.org/", "id=parent; domain=a.org"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("id", "parent", 0)}, CookiesFor(holder, "www.a.org"));
}

TEST_F(CookieHolderTest, ExpiryAfterTheCurrentTimeIsSent)
{
    QCookieHolder holder;
    const unsigned int now = CookieParser::GetCurrentTimeToInt();
    QCookie* cookie = new QCookie;
    cookie->domain = "a.org";
    const CQSString soon("soon");
    const CQSString gone("gone");
    const CQSString value("v");
    ASSERT_TRUE(cookie->SetCookie(&soon, &value, now + 3600, true));
    ASSERT_TRUE(cookie->SetCookie(&gone, &value, now - 3600, true));
    holder.cookies.put(CQSString("a.org"), cookie);
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("soon", "v", now + 3600)}, CookiesFor(holder, "a.org"));
}

// The current time counts its month from 1, dates from 0: a date less than
// a month ahead is already past, a date two months ahead is not.
TEST_F(CookieHolderTest, ExpiryWithinAMonthCountsAsExpired)
{
    const QString date = QLocale::c().toString(QDateTime::currentDateTime().addDays(10),
                                               QStringLiteral("ddd, dd MMM yyyy hh:mm:ss")) + " GMT";
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", ("k=v; expires=" + date.toStdString()).c_str()));
    EXPECT_NE(0u, holder.cookies.get(CQSString("a.org"))->GetCookie(CQSString("k"))->expires);
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(holder, "a.org"));
}

TEST_F(CookieHolderTest, ExpiryTwoMonthsAheadIsSent)
{
    const QString date = QLocale::c().toString(QDateTime::currentDateTime().addDays(60),
                                               QStringLiteral("ddd, dd MMM yyyy hh:mm:ss")) + " GMT";
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", ("k=v; expires=" + date.toStdString()).c_str()));
    EXPECT_EQ(1u, CookiesFor(holder, "a.org").size());
}

TEST_F(CookieHolderTest, HostIsComparedExactly)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//shop.org/", "k=v"));
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(holder, "SHOP.ORG"));
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(holder, "hop.org"));
}

TEST_F(CookieHolderTest, FlagHasNoEffect)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    std::unique_ptr<CQHashTable<QCookieValue>> withTrue(holder.GetCookie(CQSString("a.org"), true));
    std::unique_ptr<CQHashTable<QCookieValue>> withFalse(holder.GetCookie(CQSString("a.org"), false));
    EXPECT_EQ(Values(withTrue.get()), Values(withFalse.get()));
    EXPECT_EQ(1u, Values(withFalse.get()).size());
}

TEST_F(CookieHolderTest, ResultIsAnIndependentCopy)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    CQHashTable<QCookieValue>* table = holder.GetCookie(CQSString("a.org"), true);
    ASSERT_NE(nullptr, table);
    QCookieValue* copy = table->get(CQSString("k"));
    ASSERT_NE(nullptr, copy);
    QCookieValue* original = holder.cookies.get(CQSString("a.org"))->GetCookie(CQSString("k"));
    EXPECT_NE(original, copy);
    copy->value = "changed";
    delete table;
    EXPECT_EQ(Cookie("k", "v", 0), *original);
}

TEST_F(CookieHolderTest, CandidateListHoldsThirtyTwoNames)
{
    // 40 labels: candidate i is the host without its first i labels.
    std::vector<std::string> candidates;
    std::string host;
    for (int i = 39; i >= 0; --i)
        host = "l" + std::to_string(i) + (host.empty() ? "" : "." + host);
    std::string rest = host;
    for (;;) {
        candidates.push_back(rest);
        const std::size_t dot = rest.find('.');
        if (dot == std::string::npos)
            break;
        rest = rest.substr(dot + 1);
    }
    ASSERT_EQ(40u, candidates.size());

    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//x/", ("in=1; domain=" + candidates[31]).c_str()));
    ASSERT_EQ(1, Parse(holder, "//x/", ("out=1; domain=" + candidates[32]).c_str()));
    ASSERT_EQ(1, Parse(holder, "//x/", ("top=1; domain=" + candidates[39]).c_str()));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("in", "1", 0)}, CookiesFor(holder, host.c_str()));
    // From the second label on, the 32 names reach one label further.
    EXPECT_EQ(2u, CookiesFor(holder, candidates[1].c_str()).size());
}

// ---- Save2File and SaveItem -------------------------------------------------

TEST_F(CookieHolderTest, SavedFileHoldsTheRecordBytes)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, "http://srv.test:8080/news?id=7",
                       (std::string("sid=ab12; expires=") + KFutureDate + "; path=/").c_str()));
    holder.Save2File();
    const QByteArray expected = "sid\r\nab12\r\nsrv.test\r\n" + QByteArray::number(KFuture) + "\r\n";
    EXPECT_EQ(Visible(expected), Visible(Contents(CookieFile("zorb@srv.test.txt"))));
    EXPECT_EQ(QStringList{"zorb@srv.test.txt"}, Listing());
}

TEST_F(CookieHolderTest, SavedRecordsFollowTableOrder)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    const std::vector<std::string> names = {"alpha", "beta", "gamma", "delta", "eps", "zeta", "eta", "theta",
                                            "iota", "kappa", "lambda", "mu"};
    for (const std::string& name : names)
        ASSERT_EQ(1, Parse(holder, "//a.org/", (name + "=" + name + "-value").c_str()));
    holder.Save2File();
    QByteArray expected;
    for (const std::string& name : TableOrder(names))
        expected += Record(QByteArray(name.c_str()), QByteArray((name + "-value").c_str()), "a.org", 0);
    EXPECT_EQ(Visible(expected), Visible(Contents(CookieFile("zorb@a.org.txt"))));
}

TEST_F(CookieHolderTest, OneFilePerModifiedDomain)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=1"));
    ASSERT_EQ(1, Parse(holder, "//b.org/", (std::string("k=2; expires=") + KFutureDate).c_str()));
    ASSERT_EQ(1, Parse(holder, "//x/", "k=3; domain=c.org; expires=Mon, 01 Jan 2001 00:00:00 GMT"));
    holder.Save2File();
    EXPECT_EQ((QStringList{"zorb@a.org.txt", "zorb@b.org.txt", "zorb@c.org.txt"}), Listing());
    EXPECT_EQ(Record("k", "1", "a.org", 0), Contents(CookieFile("zorb@a.org.txt")));
    EXPECT_EQ(Record("k", "2", "b.org", KFuture), Contents(CookieFile("zorb@b.org.txt")));
    EXPECT_EQ(Record("k", "3", "c.org", Calendar(2001, 0, 1, 0, 0, 0)), Contents(CookieFile("zorb@c.org.txt")));
}

TEST_F(CookieHolderTest, UnmodifiedDomainsAreLeftAsTheyAreOnDisk)
{
    PutFile("zorb@kept.org.txt", Record("k", "v", "kept.org", KFuture));
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_NE(nullptr, holder.cookies.get(CQSString("kept.org")));
    const QByteArray handEdited = Record("k", "edited", "kept.org", KFuture);
    ASSERT_TRUE(WriteFile(CookieFile("zorb@kept.org.txt"), handEdited));
    ASSERT_EQ(1, Parse(holder, "//other.org/", "a=b"));
    holder.Save2File();
    EXPECT_EQ(handEdited, Contents(CookieFile("zorb@kept.org.txt")));
    EXPECT_EQ(Record("a", "b", "other.org", 0), Contents(CookieFile("zorb@other.org.txt")));
}

TEST_F(CookieHolderTest, FlagIsNotClearedBySaving)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.Save2File();
    EXPECT_TRUE(holder.cookies.get(CQSString("a.org"))->modified);
    ASSERT_TRUE(WriteFile(CookieFile("zorb@a.org.txt"), "changed on disk"));
    holder.Save2File();
    EXPECT_EQ(Record("k", "v", "a.org", 0), Contents(CookieFile("zorb@a.org.txt")));
}

TEST_F(CookieHolderTest, SavingReplacesLongerOldContent)
{
    PutFile("zorb@a.org.txt", QByteArray(5000, 'o'));
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.Save2File();
    EXPECT_EQ(Record("k", "v", "a.org", 0), Contents(CookieFile("zorb@a.org.txt")));
}

TEST_F(CookieHolderTest, LargeDomainFileCrossesTheWriteCache)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    const std::string value(700, 'v');
    ASSERT_EQ(1, Parse(holder, "//a.org/", ("big=" + value).c_str()));
    holder.Save2File();
    EXPECT_EQ(Record("big", QByteArray(value.c_str()), "a.org", 0), Contents(CookieFile("zorb@a.org.txt")));
}

TEST_F(CookieHolderTest, NothingIsWrittenWithoutCookies)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    holder.Save2File();
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, MissingCookieDirectoryIsSilent)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_TRUE(QDir(CookieDir()).removeRecursively());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.Save2File();
    EXPECT_FALSE(QFileInfo::exists(CookieDir()));
}

TEST_F(CookieHolderTest, TargetThatIsADirectoryIsLeftAlone)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_TRUE(QDir().mkpath(CookieFile("zorb@a.org.txt")));
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.Save2File();
    EXPECT_TRUE(QFileInfo(CookieFile("zorb@a.org.txt")).isDir());
    EXPECT_EQ(QStringList{"zorb@a.org.txt"}, Listing());
}

TEST_F(CookieHolderTest, SaveItemWritesUnderTheGivenName)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie cookie;
    cookie.domain = "d.org";
    const CQSString name("n");
    const CQSString value("v");
    ASSERT_TRUE(cookie.SetCookie(&name, &value, 5, false));
    const CQSString fileName("custom.txt");
    holder.SaveItem(&fileName, &cookie);
    EXPECT_EQ(Record("n", "v", "d.org", 5), Contents(CookieFile("custom.txt")));
    holder.SaveItem(nullptr, &cookie);
    holder.SaveItem(&fileName, nullptr);
    EXPECT_EQ(QStringList{"custom.txt"}, Listing());
}

TEST_F(CookieHolderTest, NothingIsSavedOnDestruction)
{
    {
        QCookieHolder holder;
        holder.ConstructL(Base());
        ASSERT_EQ(1, Parse(holder, "//a.org/", (std::string("k=v; expires=") + KFutureDate).c_str()));
    }
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, WithoutADirectoryNothingTouchesTheDisk)
{
    const bool rootCookiesExisted = QFileInfo::exists("/Cookies");
    QCookieHolder holder;
    holder.ConstructL(CQWString(L""));
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.Save2File();
    holder.ClearCookiFile();
    EXPECT_EQ(0, holder.cookies.GetCount());
    if (!rootCookiesExisted) {
        EXPECT_FALSE(QFileInfo::exists("/Cookies"));
    }
}

// ---- ConstructL and ReadFromfile -----------------------------------------

TEST_F(CookieHolderTest, ConstructCreatesTheCookieDirectory)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_TRUE(QFileInfo(CookieDir()).isDir());
    EXPECT_EQ(Base(), holder.baseDirectory);
}

TEST_F(CookieHolderTest, BackslashesBecomeSlashes)
{
    const QString withBackslashes = m_dir.Path() + "\\data\\app";
    QCookieHolder holder;
    holder.ConstructL(CQWString(withBackslashes));
    EXPECT_EQ(CQWString(m_dir.Path() + "/data/app"), holder.baseDirectory);
    EXPECT_TRUE(QFileInfo(m_dir.Path() + "/data/app/Cookies").isDir());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.Save2File();
    EXPECT_EQ(Record("k", "v", "a.org", 0), Contents(m_dir.Path() + "/data/app/Cookies/zorb@a.org.txt"));
}

TEST_F(CookieHolderTest, UncreatableDirectoryLoadsNothing)
{
    ASSERT_TRUE(WriteFile(m_dir.File("plain"), "not a directory"));
    QCookieHolder holder;
    holder.ConstructL(CQWString(m_dir.File("plain")));
    EXPECT_EQ(0, holder.cookies.GetCount());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.Save2File();
    EXPECT_EQ(QByteArray("not a directory"), Contents(m_dir.File("plain")));
}

TEST_F(CookieHolderTest, LoadedCookiesAreUnmodifiedAndServed)
{
    PutFile("zorb@a.org.txt", Record("k1", "v1", "a.org", KFuture) + Record("k2", "v2", "a.org", KFuture + 1));
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("a.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_FALSE(cookie->modified);
    EXPECT_EQ(CQSString("a.org"), cookie->domain);
    EXPECT_EQ(2, cookie->values.GetCount());
    EXPECT_EQ(Cookie("k1", "v1", KFuture), *cookie->GetCookie(CQSString("k1")));
    EXPECT_EQ(Cookie("k2", "v2", KFuture + 1), *cookie->GetCookie(CQSString("k2")));
    EXPECT_EQ(2u, CookiesFor(holder, "www.a.org").size());
}

TEST_F(CookieHolderTest, LoadSaveRoundTrip)
{
    const std::vector<std::string> names = {"n0", "n1", "n2", "n3", "n4", "n5", "n6", "n7", "n8", "n9",
                                            "n10", "n11", "n12", "n13", "n14"};
    {
        QCookieHolder writer;
        writer.ConstructL(Base());
        for (const std::string& name : names)
            ASSERT_EQ(1, Parse(writer, "//rt.org/", (name + "=val-" + name + "; expires=" + KFutureDate).c_str()));
        ASSERT_EQ(1, Parse(writer, "//other.rt.org/", (std::string("o=1; expires=") + KFutureDate).c_str()));
        writer.Save2File();
    }
    const std::vector<std::string> firstOrder = TableOrder(names);
    QByteArray first;
    for (const std::string& name : firstOrder)
        first += Record(QByteArray(name.c_str()), QByteArray(("val-" + name).c_str()), "rt.org", KFuture);
    ASSERT_EQ(Visible(first), Visible(Contents(CookieFile("zorb@rt.org.txt"))));

    QCookieHolder reader;
    reader.ConstructL(Base());
    ASSERT_EQ(2, reader.cookies.GetCount());
    QCookie* cookie = reader.cookies.get(CQSString("rt.org"));
    ASSERT_NE(nullptr, cookie);
    ASSERT_EQ(static_cast<int>(names.size()), cookie->values.GetCount());
    for (const std::string& name : names) {
        const QCookieValue* value = cookie->GetCookie(CQSString(name.c_str()));
        ASSERT_NE(nullptr, value) << name;
        EXPECT_EQ(Cookie(name.c_str(), ("val-" + name).c_str(), KFuture), *value);
    }

    // Loaded records go into the table in file order.
    cookie->modified = true;
    reader.Save2File();
    QByteArray second;
    for (const std::string& name : TableOrder(firstOrder))
        second += Record(QByteArray(name.c_str()), QByteArray(("val-" + name).c_str()), "rt.org", KFuture);
    EXPECT_EQ(Visible(second), Visible(Contents(CookieFile("zorb@rt.org.txt"))));
    EXPECT_EQ(Record("o", "1", "other.rt.org", KFuture), Contents(CookieFile("zorb@other.rt.org.txt")));
}

TEST_F(CookieHolderTest, SessionOnlyFileIsDeletedOnLoad)
{
    PutFile("zorb@s.org.txt", Record("a", "1", "s.org", 0) + Record("b", "2", "s.org", 0));
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_EQ(0, holder.cookies.GetCount());
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, ExpiredOnlyFileIsDeletedOnLoad)
{
    PutFile("zorb@e.org.txt", Record("a", "1", "e.org", KPast));
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_EQ(0, holder.cookies.GetCount());
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, MixedFileKeepsItsLiveRecordsAndStaysUntouched)
{
    const QByteArray bytes =
        Record("s", "1", "m.org", 0) + Record("live", "2", "m.org", KFuture) + Record("old", "3", "m.org", KPast);
    PutFile("zorb@m.org.txt", bytes);
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("m.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(1, cookie->values.GetCount());
    EXPECT_EQ(Cookie("live", "2", KFuture), *cookie->GetCookie(CQSString("live")));
    EXPECT_EQ(bytes, Contents(CookieFile("zorb@m.org.txt")));
}

TEST_F(CookieHolderTest, LastRecordWithoutItsFinalLineEndIsLost)
{
    QByteArray bytes = Record("a", "1", "t.org", KFuture) + Record("b", "2", "t.org", KFuture);
    bytes.chop(2);
    PutFile("zorb@t.org.txt", bytes);
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("t.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(1, cookie->values.GetCount());
    EXPECT_NE(nullptr, cookie->GetCookie(CQSString("a")));
    EXPECT_EQ(nullptr, cookie->GetCookie(CQSString("b")));
}

TEST_F(CookieHolderTest, EmptyDomainLineKeepsThePreviousDomain)
{
    PutFile("zorb@d.org.txt", Record("a", "1", "d.org", KFuture) + Record("b", "2", "", KFuture));
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("d.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(2, cookie->values.GetCount());
    EXPECT_EQ(1, holder.cookies.GetCount());
}

TEST_F(CookieHolderTest, EmptyNameAndValueLinesGiveEmptyTexts)
{
    PutFile("zorb@d.org.txt", Record("", "", "d.org", KFuture));
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("d.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(Cookie("", "", KFuture), *cookie->GetCookie(CQSString("")));
}

TEST_F(CookieHolderTest, LoadedFieldsAreTrimmed)
{
    PutFile("zorb@d.org.txt", Record("  name\t", " value ", "\td.org  ", KFuture));
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("d.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(CQSString("d.org"), cookie->domain);
    EXPECT_EQ(Cookie("name", "value", KFuture), *cookie->GetCookie(CQSString("name")));
}

TEST_F(CookieHolderTest, ExpiryLineIsReadAsUnsignedDecimal)
{
    const QByteArray future = QByteArray::number(KFuture);
    PutFile("zorb@d.org.txt", "a\r\n1\r\nd.org\r\n  " + future + "xyz\r\n" + "b\r\n2\r\nd.org\r\nsoon\r\n" +
                                  "c\r\n3\r\nd.org\r\n\r\n");
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("d.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(1, cookie->values.GetCount());
    EXPECT_EQ(Cookie("a", "1", KFuture), *cookie->GetCookie(CQSString("a")));
}

TEST_F(CookieHolderTest, EveryRegularFileIsReadWhateverItsName)
{
    PutFile("notes.txt", Record("k", "v", "n.org", KFuture));
    PutFile("garbage.bin", "no records here");
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_NE(nullptr, holder.cookies.get(CQSString("n.org")));
    EXPECT_EQ(QStringList{"notes.txt"}, Listing());
}

TEST_F(CookieHolderTest, DirectoriesHiddenFilesAndFifosAreSkipped)
{
    QDir().mkpath(CookieFile("sub"));
    ASSERT_TRUE(WriteFile(CookieFile("sub/zorb@in.org.txt"), Record("k", "v", "in.org", KFuture)));
    PutFile(".hidden", Record("k", "v", "hidden.org", KFuture));
    ASSERT_EQ(0, ::mkfifo(QFile::encodeName(CookieFile("zorb@fifo.org.txt")).constData(), 0600));
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_EQ(0, holder.cookies.GetCount());
    EXPECT_EQ((QStringList{".hidden", "sub", "zorb@fifo.org.txt"}), Listing());
}

TEST_F(CookieHolderTest, LaterFileWithTheSameDomainReplacesTheEarlier)
{
    PutFile("zorb@a.txt", Record("first", "1", "same.org", KFuture));
    PutFile("zorb@b.txt", Record("second", "2", "same.org", KFuture));
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("same.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(1, cookie->values.GetCount());
    EXPECT_NE(nullptr, cookie->GetCookie(CQSString("second")));
}

TEST_F(CookieHolderTest, CookieIsFiledUnderTheDomainOfTheLastRecordRead)
{
    PutFile("zorb@mix.txt", Record("a", "1", "first.org", KFuture) + Record("b", "2", "last.org", KPast));
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_EQ(nullptr, holder.cookies.get(CQSString("first.org")));
    QCookie* cookie = holder.cookies.get(CQSString("last.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(CQSString("first.org"), cookie->domain);
    EXPECT_EQ(1, cookie->values.GetCount());
}

TEST_F(CookieHolderTest, EmptyFileIsDeleted)
{
    PutFile("zorb@empty.txt", QByteArray());
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_EQ(0, holder.cookies.GetCount());
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, BinaryFileWithoutLineEndsIsDeleted)
{
    const unsigned seed = 7u;
    std::mt19937 random(seed);
    QByteArray bytes;
    for (int i = 0; i < 4096; ++i) {
        char c = static_cast<char>(random() & 0xFF);
        if (c == '\r')
            c = '\0';
        bytes += c;
    }
    PutFile("zorb@bin.txt", bytes);
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_EQ(0, holder.cookies.GetCount()) << "seed " << seed;
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, BinaryBytesInsideRecordsAreKept)
{
    const QByteArray name("na\0me", 5);
    const QByteArray value("\x01\xff\x7f", 3);
    PutFile("zorb@bin.txt", Record(name, value, "bin.org", KFuture));
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("bin.org"));
    ASSERT_NE(nullptr, cookie);
    const QCookieValue* stored = cookie->GetCookie(CQSString(name.constData(), name.size()));
    ASSERT_NE(nullptr, stored);
    EXPECT_EQ(5, stored->name.GetLength());
    EXPECT_EQ(0, std::memcmp(value.constData(), stored->value.GetDataPtr(), 3));
}

TEST_F(CookieHolderTest, RandomBinaryFilesNeverCrash)
{
    const unsigned seed = 424242u;
    std::mt19937 random(seed);
    const char pieces[][12] = {"\r\n", "\r", "\n", "a", "4099766400", "d.org", "\0", " ", "\xff"};
    for (int file = 0; file < 50; ++file) {
        QByteArray bytes;
        const int count = static_cast<int>(random() % 200);
        for (int i = 0; i < count; ++i) {
            const char* piece = pieces[random() % (sizeof pieces / sizeof pieces[0])];
            bytes += *piece == '\0' ? QByteArray(1, '\0') : QByteArray(piece);
        }
        PutFile("zorb@random.txt", bytes);
        QCookieHolder holder;
        holder.ConstructL(Base());
        // A file survives the load exactly when it gave a cookie.
        EXPECT_EQ(holder.cookies.GetCount() == 1, QFileInfo::exists(CookieFile("zorb@random.txt")))
            << "seed " << seed << " file " << file;
        QFile::remove(CookieFile("zorb@random.txt"));
    }
}

TEST_F(CookieHolderTest, TruncatedFileKeepsTheCompleteRecordsOnly)
{
    const QByteArray records[] = {Record("a", "1", "tr.org", KFuture), Record("bb", "22", "", KFuture),
                                  Record("ccc", "333", "tr.org", KFuture)};
    QByteArray whole;
    std::vector<int> ends;
    for (const QByteArray& record : records) {
        whole += record;
        ends.push_back(whole.size());
    }
    for (int length = 0; length <= whole.size(); ++length) {
        PutFile("zorb@tr.org.txt", whole.left(length));
        QCookieHolder holder;
        holder.ConstructL(Base());
        int complete = 0;
        for (int end : ends)
            complete += end <= length ? 1 : 0;
        QCookie* cookie = holder.cookies.get(CQSString("tr.org"));
        if (complete == 0) {
            EXPECT_EQ(nullptr, cookie) << length;
            EXPECT_FALSE(QFileInfo::exists(CookieFile("zorb@tr.org.txt"))) << length;
        } else {
            ASSERT_NE(nullptr, cookie) << length;
            EXPECT_EQ(complete, cookie->values.GetCount()) << length;
        }
        QFile::remove(CookieFile("zorb@tr.org.txt"));
    }
}

TEST_F(CookieHolderTest, HugeFileWithoutLineEndsIsDeleted)
{
    PutFile("zorb@huge.txt", QByteArray(50 * 1024 * 1024, 'x'));
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_EQ(0, holder.cookies.GetCount());
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, HugeFileOfLineEndsOnlyIsDeleted)
{
    PutFile("zorb@huge.txt", QByteArray("\r\n").repeated(25 * 1024 * 1024));
    QCookieHolder holder;
    holder.ConstructL(Base());
    EXPECT_EQ(0, holder.cookies.GetCount());
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, HugeFileOfRepeatedRecordsLoadsTheLastValue)
{
    const QByteArray record = Record("k", "same", "h.org", KFuture);
    QByteArray bytes = record.repeated(50 * 1024 * 1024 / record.size() + 1);
    bytes += Record("k", "last", "h.org", KFuture);
    PutFile("zorb@h.org.txt", bytes);
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("h.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(1, cookie->values.GetCount());
    EXPECT_EQ(Cookie("k", "last", KFuture), *cookie->GetCookie(CQSString("k")));
}

TEST_F(CookieHolderTest, LoadKeepsTheFirstNamesUpToTheLimit)
{
    QByteArray bytes;
    for (int i = 0; i <= QCookie::KMaxCookiesPerDomain; ++i)
        bytes += Record("n" + QByteArray::number(i), "v", "lim.org", KFuture);
    PutFile("zorb@lim.org.txt", bytes);
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("lim.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(1000, cookie->values.GetCount());
    EXPECT_NE(nullptr, cookie->GetCookie(CQSString("n999")));
    EXPECT_EQ(nullptr, cookie->GetCookie(CQSString("n1000")));
}

TEST_F(CookieHolderTest, HugeFileOfDistinctNamesIsBounded)
{
    const QByteArray tail = "\r\nv\r\nd.org\r\n" + QByteArray::number(KFuture) + "\r\n";
    QByteArray bytes;
    bytes.reserve(50 * 1024 * 1024 + 64);
    char digits[16];
    for (int i = 0; bytes.size() < 50 * 1024 * 1024; ++i) {
        bytes.append("name", 4);
        bytes.append(digits, std::snprintf(digits, sizeof digits, "%d", i));
        bytes.append(tail);
    }
    PutFile("zorb@d.org.txt", bytes);
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("d.org"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(QCookie::KMaxCookiesPerDomain, cookie->values.GetCount());
    EXPECT_EQ(static_cast<std::size_t>(QCookie::KMaxCookiesPerDomain), CookiesFor(holder, "d.org").size());
}

TEST_F(CookieHolderTest, ReadFromfileResults)
{
    PutFile("live.txt", Record("k", "v", "r.org", KFuture));
    PutFile("dead.txt", Record("k", "v", "r.org", 0));
    QCookieHolder holder;
    CQFile live;
    ASSERT_NE(0, live.Open(CQWString(CookieFile("live.txt")), CQFile::KModeRead));
    EXPECT_EQ(1, holder.ReadFromfile(live));
    CQFile dead;
    ASSERT_NE(0, dead.Open(CQWString(CookieFile("dead.txt")), CQFile::KModeRead));
    EXPECT_EQ(0, holder.ReadFromfile(dead));
    CQFile closed;
    EXPECT_EQ(0, holder.ReadFromfile(closed));
    EXPECT_EQ(1, holder.cookies.GetCount());
}

// A domain file written out in full, so that builds against Qt 5 and Qt 6
// are held to the same bytes: two records of "zorb.example", in the order
// of the cookie table ("lang" before "SID"), the first with an empty value,
// both expiring at 4000000000 (in 2096).
const char KTwoRecordFile[] = "lang\r\n\r\nzorb.example\r\n4000000000\r\n"
                              "SID\r\nab12\r\nzorb.example\r\n4000000000\r\n";

TEST_F(CookieHolderTest, FileGivenByItsBytesLoadsAndSavesBackTheSame)
{
    const QByteArray bytes(KTwoRecordFile);
    ASSERT_EQ(71, bytes.size());
    PutFile("zorb@zorb.example.txt", bytes);
    QCookieHolder holder;
    holder.ConstructL(Base());
    QCookie* cookie = holder.cookies.get(CQSString("zorb.example"));
    ASSERT_NE(nullptr, cookie);
    EXPECT_EQ(CQSString("zorb.example"), cookie->domain);
    EXPECT_EQ(2, cookie->values.GetCount());
    EXPECT_EQ(Cookie("SID", "ab12", 4000000000u), *cookie->GetCookie(CQSString("SID")));
    EXPECT_EQ(Cookie("lang", "", 4000000000u), *cookie->GetCookie(CQSString("lang")));

    // Marked modified, the domain is written back to the same bytes.
    cookie->modified = true;
    holder.Save2File();
    EXPECT_EQ(Visible(bytes), Visible(Contents(CookieFile("zorb@zorb.example.txt"))));
}

// ---- ClearCookiFile -------------------------------------------------------

TEST_F(CookieHolderTest, ClearForgetsEverythingAndEmptiesTheDirectory)
{
    PutFile("zorb@kept.org.txt", Record("k", "v", "kept.org", KFuture));
    PutFile(".hidden", "x");
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.Save2File();
    ASSERT_FALSE(Listing().isEmpty());

    holder.ClearCookiFile();
    EXPECT_EQ(0, holder.cookies.GetCount());
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(holder, "a.org"));
    EXPECT_EQ(std::vector<QCookieValue>{}, CookiesFor(holder, "kept.org"));
    EXPECT_TRUE(QFileInfo(CookieDir()).isDir());
    EXPECT_EQ(QStringList(), Listing());
}

TEST_F(CookieHolderTest, HolderIsUsableAfterClear)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    holder.ClearCookiFile();
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=again"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "again", 0)}, CookiesFor(holder, "a.org"));
    holder.Save2File();
    EXPECT_EQ(Record("k", "again", "a.org", 0), Contents(CookieFile("zorb@a.org.txt")));
}

// ---- the record reader ----------------------------------------------------

TEST(CookieFileReaderTest, ReadsRecordsAndCarriesTheDomain)
{
    const QByteArray bytes = Record("a", "1", "d.org", 5) + Record("b", "", "", 0) + "c\r\n";
    velanet::CookieFileReader reader(reinterpret_cast<const unsigned char*>(bytes.constData()), bytes.size());
    ASSERT_EQ(velanet::CookieFileReader::KRecordRead, reader.Next());
    EXPECT_EQ(CQSString("a"), reader.m_strName);
    EXPECT_EQ(CQSString("1"), reader.m_strValue);
    EXPECT_EQ(CQSString("d.org"), reader.m_strDomain);
    EXPECT_EQ(5u, reader.m_nExpires);
    ASSERT_EQ(velanet::CookieFileReader::KRecordRead, reader.Next());
    EXPECT_EQ(CQSString("b"), reader.m_strName);
    EXPECT_EQ(CQSString(""), reader.m_strValue);
    EXPECT_EQ(CQSString("d.org"), reader.m_strDomain);
    EXPECT_EQ(0u, reader.m_nExpires);
    EXPECT_EQ(velanet::CookieFileReader::KNoMoreRecords, reader.Next());
    EXPECT_EQ(velanet::CookieFileReader::KNoMoreRecords, reader.Next());
    EXPECT_EQ(CQSString("b"), reader.m_strName);
}

TEST(CookieFileReaderTest, NullOrEmptyDataHasNoRecords)
{
    velanet::CookieFileReader none(nullptr, 10);
    EXPECT_EQ(velanet::CookieFileReader::KNoMoreRecords, none.Next());
    const unsigned char byte = '\r';
    velanet::CookieFileReader empty(&byte, 0);
    EXPECT_EQ(velanet::CookieFileReader::KNoMoreRecords, empty.Next());
}

// Every prefix in an exactly sized block: the reader gives the records that
// are complete within it and reads nothing beyond it.
TEST(CookieFileReaderTest, EveryPrefixGivesTheCompleteRecords)
{
    const QByteArray whole = Record("name", "value", "d.org", 123) + Record("n2", "v2", "", 0) +
                             Record("n3", "v\r3", "e.org", 4294967295u);
    const int ends[] = {static_cast<int>(Record("name", "value", "d.org", 123).size()),
                        static_cast<int>(Record("name", "value", "d.org", 123).size() + Record("n2", "v2", "", 0).size()),
                        static_cast<int>(whole.size())};
    for (int length = 0; length <= whole.size(); ++length) {
        std::unique_ptr<unsigned char[]> exact(new unsigned char[length > 0 ? length : 1]);
        std::memcpy(exact.get(), whole.constData(), static_cast<std::size_t>(length));
        velanet::CookieFileReader reader(exact.get(), length);
        int expected = 0;
        for (int end : ends)
            expected += end <= length ? 1 : 0;
        int got = 0;
        while (reader.Next() == velanet::CookieFileReader::KRecordRead)
            ++got;
        EXPECT_EQ(expected, got) << "length " << length;
        if (got == 3) {
            EXPECT_EQ(CQSString("n3"), reader.m_strName);
            EXPECT_EQ(CQSString("e.org"), reader.m_strDomain);
            EXPECT_EQ(4294967295u, reader.m_nExpires);
        }
    }
}

// ---- call forms ------------------------------------------------------------
//
// The holder as the application may call it: with literal texts, without the
// GetCookie flag, with the directory as a QString.

TEST_F(CookieHolderTest, LiteralTextsAndTheDefaultFlag)
{
    QCookieHolder holder;
    holder.ConstructL(m_dir.Path());
    EXPECT_EQ(1, holder.ParseCookie("//mail.shop.org/x", "SID=abc; Path=/; Domain=.shop.org"));
    EXPECT_EQ(0, holder.ParseCookie("//mail.shop.org/x", "=v"));

    std::unique_ptr<CQHashTable<QCookieValue>> table(holder.GetCookie("mail.shop.org"));
    ASSERT_NE(nullptr, table.get());
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("SID", "abc", 0)}, Values(table.get()));
    EXPECT_EQ(nullptr, holder.GetCookie(""));

    holder.Save2File();
    EXPECT_EQ(Record("SID", "abc", "shop.org", 0), Contents(CookieFile("zorb@shop.org.txt")));
}

TEST_F(CookieHolderTest, ReadOnlyNamesForTheStoreCalls)
{
    QCookie cookie;
    const CQSString name("n");
    const CQSString value("v");
    EXPECT_TRUE(cookie.SetCookie(&name, &value, 7, true));
    const QCookieValue* stored = cookie.GetCookie(name);
    ASSERT_NE(nullptr, stored);
    EXPECT_EQ(Cookie("n", "v", 7), *stored);

    QCookieHolder holder;
    holder.ConstructL(Base());
    cookie.domain = "d.org";
    const CQSString fileName("zorb@d.org.txt");
    holder.SaveItem(&fileName, &cookie);
    EXPECT_EQ(Record("n", "v", "d.org", 7), Contents(CookieFile("zorb@d.org.txt")));
}

// ---- failures ---------------------------------------------------------------

// A device that takes no byte: a record fails at the first line that cannot
// be written, whether it goes out at once or overflows the write cache.
TEST(CookieFileWriterTest, ARecordFailsAtTheLineThatCannotBeWritten)
{
    if (!QFileInfo::exists(QStringLiteral("/dev/full")))
        GTEST_SKIP() << "no /dev/full";
    const CQSString name("n");
    const CQSString value("v");
    const CQSString domain("d");
    // Each line is three bytes with its CR LF: the cache takes none, one,
    // two or three of the four lines.
    for (const int cacheBytes : {0, 3, 6, 9}) {
        CQFile file;
        ASSERT_NE(0, file.OpenWithWriteCache(L"/dev/full", CQFile::KModeWrite, cacheBytes));
        EXPECT_FALSE(velanet::WriteCookieRecord(file, name, value, domain, 5)) << cacheBytes;
        file.Close();
    }
    // The whole record fits the cache: accepted, and closing reports the loss.
    CQFile file;
    ASSERT_NE(0, file.OpenWithWriteCache(L"/dev/full", CQFile::KModeWrite, 12));
    EXPECT_TRUE(velanet::WriteCookieRecord(file, name, value, domain, 5));
    EXPECT_EQ(0, file.Close());
}

TEST_F(CookieHolderTest, AFullDiskKeepsTheOldFile)
{
    if (!QFileInfo::exists(QStringLiteral("/dev/full")))
        GTEST_SKIP() << "no /dev/full";
    QCookieHolder holder;
    holder.ConstructL(Base());
    const QByteArray old = Record("old", "1", "a.org", KFuture);
    ASSERT_TRUE(WriteFile(CookieFile("zorb@a.org.txt"), old));
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    // Small records stay in the write cache until the file is closed; a
    // value longer than the cache fails while the records are written.
    for (const std::string& text : {std::string("k=w"), "big=" + std::string(600, 'x')}) {
        SCOPED_TRACE(text.substr(0, 4));
        // The temporary file is a link to a device that takes no byte.
        ASSERT_TRUE(QFile::link(QStringLiteral("/dev/full"), CookieFile(".zorb@a.org.txt.tmp")));
        ASSERT_EQ(1, Parse(holder, "//a.org/", text.c_str()));
        holder.Save2File();
        EXPECT_EQ(old, Contents(CookieFile("zorb@a.org.txt")));
        EXPECT_EQ(QStringList{"zorb@a.org.txt"}, Listing());
    }
}

TEST_F(CookieHolderTest, AFileThatCannotBeReadGivesNothing)
{
    QDir().mkpath(CookieDir());
    CQFile file;
    ASSERT_NE(0, file.Open(CQWString(CookieFile("w.txt")), CQFile::KModeWrite));
    const QByteArray bytes = Record("k", "v", "r.org", KFuture);
    ASSERT_EQ(static_cast<int>(bytes.size()), file.Write(bytes.constData(), static_cast<int>(bytes.size())));
    QCookieHolder holder;
    // Its length is known, but a file open for writing gives no byte.
    EXPECT_EQ(0, holder.ReadFromfile(file));
    EXPECT_EQ(0, holder.cookies.GetCount());
    file.Close();
}

// Each allocation of ParseCookie fails in turn, for a domain not held yet
// and for a new name of a domain held: the cookie is stored whole or not at
// all, and what was stored before stays.
TEST_F(CookieHolderTest, AnAllocationThatFailsStoresTheCookieWholeOrNotAtAll)
{
    for (const bool domainHeld : {false, true}) {
        SCOPED_TRACE(domainHeld ? "domain held" : "new domain");
        std::vector<QCookieValue> before;
        if (domainHeld)
            before.push_back(Cookie("old", "1", 0));
        std::vector<QCookieValue> after = before;
        after.push_back(Cookie("k", "v", KFuture));
        int skip = 0;
        for (; skip < 64; ++skip) {
            SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
            QCookieHolder holder;
            if (domainHeld) {
                ASSERT_EQ(1, Parse(holder, "//d.org/", "old=1"));
            }
            const CQSString url("//d.org/");
            const CQSString text((std::string("k=v; expires=") + KFutureDate).c_str());
            velatest::HeapWatch::FailNothrowAfter(skip);
            const int result = holder.ParseCookie(url, text);
            velatest::HeapWatch::StopFailing();
            std::vector<QCookieValue> served = CookiesFor(holder, "d.org");
            std::sort(served.begin(), served.end(),
                      [](const QCookieValue& a, const QCookieValue& b) {
                          return std::strcmp(a.name.GetDataPtr(), b.name.GetDataPtr()) > 0;
                      });
            if (result == 1) {
                EXPECT_EQ(after, served);
                break;
            }
            EXPECT_EQ(0, result);
            EXPECT_EQ(before, served);
        }
        EXPECT_GT(skip, 0);
        EXPECT_LT(skip, 64);
    }
}

// Each allocation of ParseCookie fails in turn for a name already held: the
// new value and expiry are stored whole, or the old ones stay and the
// cookie is reported as not stored.
TEST_F(CookieHolderTest, AnAllocationThatFailsKeepsTheHeldValue)
{
    int skip = 0;
    for (; skip < 64; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        QCookieHolder holder;
        ASSERT_EQ(1, Parse(holder, "//d.org/", "k=old"));
        const CQSString url("//d.org/");
        const CQSString text((std::string("k=new; expires=") + KFutureDate).c_str());
        velatest::HeapWatch::FailNothrowAfter(skip);
        const int result = holder.ParseCookie(url, text);
        velatest::HeapWatch::StopFailing();
        const std::vector<QCookieValue> served = CookiesFor(holder, "d.org");
        if (result == 1) {
            EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "new", KFuture)}, served);
            break;
        }
        EXPECT_EQ(0, result);
        EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "old", 0)}, served);
    }
    EXPECT_GT(skip, 0);
    EXPECT_LT(skip, 64);
}

// Each allocation of a lookup fails in turn: fewer cookies may be served,
// never a wrong one.
TEST_F(CookieHolderTest, AnAllocationThatFailsServesFewerCookiesNeverOthers)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.b.org/", "n1=1"));
    ASSERT_EQ(1, Parse(holder, "//b.org/", "n2=2"));
    ASSERT_EQ(1, Parse(holder, "//b.org/", "n1=shadowed"));
    const std::vector<QCookieValue> whole = CookiesFor(holder, "a.b.org");
    ASSERT_EQ(2u, whole.size());
    const CQSString host("a.b.org");
    int skip = 0;
    for (; skip < 200; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        velatest::HeapWatch::FailNothrowAfter(skip);
        std::unique_ptr<CQHashTable<QCookieValue>> table(holder.GetCookie(host, true));
        velatest::HeapWatch::StopFailing();
        const std::vector<QCookieValue> got = Values(table.get());
        for (const QCookieValue& cookie : got)
            EXPECT_NE(whole.end(), std::find(whole.begin(), whole.end(), cookie)) << cookie.name.GetDataPtr();
        if (got == whole)
            break;
    }
    EXPECT_GT(skip, 0);
    EXPECT_LT(skip, 200);
}

TEST_F(CookieHolderTest, SavingWithoutMemoryWritesNothing)
{
    QCookieHolder holder;
    holder.ConstructL(Base());
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v"));
    velatest::HeapWatch::FailNothrowAfter(0);
    holder.Save2File();
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(QStringList(), Listing());
    holder.Save2File();
    EXPECT_EQ(Record("k", "v", "a.org", 0), Contents(CookieFile("zorb@a.org.txt")));
}

// Each allocation of saving a changed persistent cookie fails in turn: the
// file holds the old record or the new one, never one without its expiry.
TEST_F(CookieHolderTest, AnAllocationThatFailsWhileSavingKeepsTheOldFile)
{
    const QByteArray old = Record("k", "v", "a.org", KFuture);
    const QByteArray fresh = Record("k", "w", "a.org", KFuture);
    int skip = 0;
    for (; skip < 64; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        PutFile("zorb@a.org.txt", old);
        QCookieHolder holder;
        holder.ConstructL(Base());
        ASSERT_EQ(1, Parse(holder, "//a.org/", (std::string("k=w; expires=") + KFutureDate).c_str()));
        velatest::HeapWatch::FailNothrowAfter(skip);
        holder.Save2File();
        velatest::HeapWatch::StopFailing();
        EXPECT_EQ(QStringList{"zorb@a.org.txt"}, Listing());
        const QByteArray now = Contents(CookieFile("zorb@a.org.txt"));
        if (now == fresh)
            break;
        EXPECT_EQ(Visible(old), Visible(now));
    }
    EXPECT_GT(skip, 0);
    EXPECT_LT(skip, 64);
}

TEST_F(CookieHolderTest, ParsingWithoutMemoryStoresNothing)
{
    QCookieHolder holder;
    const CQSString url("//a.org/");
    const CQSString text("k=v");
    velatest::HeapWatch::FailNothrowAfter(0);
    const int result = holder.ParseCookie(url, text);
    velatest::HeapWatch::StopFailing();
    EXPECT_EQ(0, result);
    EXPECT_EQ(0, holder.cookies.GetCount());
}

TEST_F(CookieHolderTest, DomainWithoutAHostNameIsIgnored)
{
    QCookieHolder holder;
    // "///x" has an empty host part; the request host is used instead.
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v; domain=///x"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "v", 0)}, CookiesFor(holder, "a.org"));
    EXPECT_EQ(1, holder.cookies.GetCount());
}

TEST_F(CookieHolderTest, BlankAttributesAreSkipped)
{
    QCookieHolder holder;
    ASSERT_EQ(1, Parse(holder, "//a.org/", "k=v;  ; domain=b.org"));
    EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "v", 0)}, CookiesFor(holder, "b.org"));
    EXPECT_EQ(nullptr, holder.cookies.get(CQSString("a.org")));
}

// Each allocation of reading a file fails in turn: its cookies are taken
// whole or not at all.
TEST_F(CookieHolderTest, AnAllocationThatFailsReadsTheFileWholeOrNotAtAll)
{
    PutFile("live.txt", Record("k", "v", "r.org", KFuture));
    int skip = 0;
    for (; skip < 64; ++skip) {
        SCOPED_TRACE("allocation " + std::to_string(skip) + " fails");
        QCookieHolder holder;
        CQFile file;
        ASSERT_NE(0, file.Open(CQWString(CookieFile("live.txt")), CQFile::KModeRead));
        velatest::HeapWatch::FailNothrowAfter(skip);
        const int result = holder.ReadFromfile(file);
        velatest::HeapWatch::StopFailing();
        if (result == 1) {
            EXPECT_EQ(std::vector<QCookieValue>{Cookie("k", "v", KFuture)}, CookiesFor(holder, "r.org"));
            break;
        }
        EXPECT_EQ(0, result);
        EXPECT_EQ(0, holder.cookies.GetCount());
    }
    EXPECT_GT(skip, 0);
    EXPECT_LT(skip, 64);
}
