// QCookieHolder::ParseCookie over arbitrary Set-Cookie values. The first
// line of the input is the request URL, every further line one value. The
// holder has no directory, so nothing touches the disk.
// Invariants: a stored cookie leaves at least one domain in the jar; the
// lookup of every domain gives a table with only named cookies.

#include "fuzz/FuzzInput.h"
#include "src/CookieHolder.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::size_t eol = text.find('\n');
    const std::string urlText = text.substr(0, eol);
    const CQSString url(urlText.data(), static_cast<int>(urlText.size()));

    QCookieHolder holder;
    bool stored = false;
    while (eol != std::string::npos) {
        const std::size_t start = eol + 1;
        eol = text.find('\n', start);
        const std::string line = text.substr(start, eol == std::string::npos ? std::string::npos : eol - start);
        const CQSString value(line.data(), static_cast<int>(line.size()));
        stored = holder.ParseCookie(url, value) == QCookieHolder::KCookieStored || stored;
    }
    FUZZ_CHECK(!stored || holder.cookies.GetCount() > 0);

    QCookie** domains = holder.cookies.getall();  // owned by the table
    const int count = holder.cookies.GetCount();
    std::vector<CQSString> names;
    for (int i = 0; domains && i < count; ++i)
        names.push_back(domains[i]->domain);
    for (const CQSString& domain : names) {
        std::unique_ptr<CQHashTable<QCookieValue>> table(holder.GetCookie(domain));
        if (!table)
            continue;
        QCookieValue** values = table->getall();
        for (int i = 0; values && i < table->GetCount(); ++i)
            FUZZ_CHECK(values[i] != nullptr);
    }
    return 0;
}
