// QCookieHolder::ReadFromfile over an arbitrary cookie file, then the
// domain it yields written back with SaveItem and read once more.
// Invariant: a written file reads back the same records (those that cannot
// expire between the two reads).

#include "fuzz/FuzzInput.h"
#include "src/CookieHolder.h"

#include "BaseClass/src/CQFile.h"

#include <QString>

namespace {

constexpr unsigned int KMargin = 3600;  // seconds that may pass between the two reads

// Reads one file into holder; the holder keeps what it read.
int ReadFile(QCookieHolder& holder, const std::string& path)
{
    CQFile file;
    FUZZ_CHECK(file.Open(CQWString(QString::fromLocal8Bit(path.c_str())), CQFile::KModeRead));
    const int result = holder.ReadFromfile(file);
    file.Close();
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string& dir = fuzzinput::ScratchDirectory();
    const std::string input = dir + "input.txt";
    fuzzinput::WriteFile(input, data, size);

    QCookieHolder first;
    first.baseDirectory = CQWString(QString::fromLocal8Bit(dir.c_str()));
    const CQWString cookieDir(QString::fromLocal8Bit((dir + "/Cookies/").c_str()));
    (void)CQFile::CreateDirectory(cookieDir);
    if (ReadFile(first, input) != QCookieHolder::KCookiesRead)
        return 0;
    FUZZ_CHECK(first.cookies.GetCount() == 1);
    QCookie* cookie = first.cookies.getall()[0];

    const CQSString fileName("zorb@fuzz.txt");
    first.SaveItem(&fileName, cookie);
    QCookieHolder second;
    const int again = ReadFile(second, dir + "Cookies/zorb@fuzz.txt");
    QCookie* copy = again == QCookieHolder::KCookiesRead ? second.cookies.get(cookie->domain) : nullptr;

    const unsigned int now = CookieParser::GetCurrentTimeToInt();
    const int count = cookie->values.GetCount();
    QCookieValue** values = cookie->GetCookie();
    for (int i = 0; i < count; ++i) {
        if (values[i]->expires < now + KMargin)
            continue;
        FUZZ_CHECK(copy != nullptr);
        const QCookieValue* back = copy->GetCookie(values[i]->name);
        FUZZ_CHECK(back && back->value == values[i]->value && back->expires == values[i]->expires);
    }
    FUZZ_CHECK(!copy || copy->values.GetCount() <= count);
    return 0;
}
