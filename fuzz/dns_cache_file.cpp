// CDNSCache loading an arbitrary dns_cache.dat, saving it (destructor) and
// loading the saved file again.
// Invariant: the second load gives the same entries (name, address, time)
// in the same order, and saving them again writes the same bytes.

#include "fuzz/FuzzInput.h"
#include "src/DNSCache.h"

#include <QFile>
#include <QString>

#include <string>
#include <tuple>

namespace {

using Entry = std::tuple<std::wstring, unsigned int, qint64>;

std::vector<Entry> Entries(CDNSCache& cache)
{
    std::vector<Entry> entries;
    for (POSITION pos = cache.dnsList.GetHeadPosition(); pos;) {
        const DNSInfo* info = cache.dnsList.GetNext(pos);
        entries.emplace_back(std::wstring(info->name.GetDataPtr(), static_cast<std::size_t>(info->name.GetLength())),
                             info->ip, info->time);
    }
    return entries;
}

QByteArray FileBytes()
{
    QFile file(CDNSCache::CacheFilePath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string& dir = fuzzinput::ScratchDirectory();
    CDNSCache::SetCacheDirectory(QString::fromLocal8Bit(dir.c_str()));
    fuzzinput::WriteFile(dir + CDNSCache::KFileName, data, size);

    std::vector<Entry> first;
    {
        CDNSCache cache;
        first = Entries(cache);
    }
    const QByteArray saved = FileBytes();
    std::vector<Entry> second;
    {
        CDNSCache cache;
        second = Entries(cache);
    }
    FUZZ_CHECK(first == second);
    FUZZ_CHECK(FileBytes() == saved);
    return 0;
}
