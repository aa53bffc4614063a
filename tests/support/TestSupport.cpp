#include "support/TestSupport.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QUuid>

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>

namespace velatest {

bool SpinUntil(const std::function<bool()>& cond, int deadlineMs)
{
    QDeadlineTimer deadline(deadlineMs);
    while (!cond()) {
        if (deadline.hasExpired())
            return false;
        // Block for at most a short slice so the deadline is honoured even
        // when no event arrives.
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 10);
    }
    return true;
}

unsigned SplitSeed()
{
    static const unsigned seed = [] {
        const char* fixed = std::getenv("VELANET_SPLIT_SEED");
        const unsigned value =
            fixed && *fixed ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10)) : std::random_device{}();
        std::cout << "[ split seed ] " << value << " (replay with VELANET_SPLIT_SEED=" << value << ")" << std::endl;
        return value;
    }();
    return seed;
}

std::vector<std::size_t> RandomCuts(std::mt19937& random, std::size_t len, std::size_t maxCuts)
{
    std::vector<std::size_t> cuts;
    if (len < 2 || maxCuts < 1)
        return cuts;
    const std::size_t count = 1 + random() % std::min(len - 1, maxCuts);
    for (std::size_t i = 0; i < count; ++i)
        cuts.push_back(1 + random() % (len - 1));
    std::sort(cuts.begin(), cuts.end());
    cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
    return cuts;
}

std::string CutsText(const std::vector<std::size_t>& cuts)
{
    std::string text = "cuts:";
    for (const std::size_t c : cuts)
        text += " " + std::to_string(c);
    return text;
}

void ProcessPendingEvents()
{
    QCoreApplication::processEvents(QEventLoop::AllEvents);
}

std::string Visible(const unsigned char* data, int len)
{
    std::string out;
    for (int i = 0; i < len; ++i) {
        const unsigned char c = data[i];
        if (c == '\r')
            out += "\\r";
        else if (c == '\n')
            out += "\\n\n";
        else if (c < 0x20 || c >= 0x7f) {
            static const char hex[] = "0123456789abcdef";
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else
            out += static_cast<char>(c);
    }
    return out;
}

std::string Visible(const QByteArray& bytes)
{
    return Visible(reinterpret_cast<const unsigned char*>(bytes.constData()), bytes.size());
}

TempDir::TempDir()
{
    m_path = QDir::tempPath() + "/velanet-test-" + QUuid::createUuid().toString(QUuid::WithoutBraces);
    QDir().mkpath(m_path);
}

TempDir::~TempDir()
{
    QDir(m_path).removeRecursively();
}

}  // namespace velatest

namespace velatest {

QByteArray Gzip(const QByteArray& in)
{
    z_stream zs{};
    EXPECT_EQ(Z_OK, deflateInit2(&zs, 9, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY));
    QByteArray out(static_cast<int>(deflateBound(&zs, static_cast<uLong>(in.size())) + 64), '\0');
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(in.constData()));
    zs.avail_in = static_cast<uInt>(in.size());
    zs.next_out = reinterpret_cast<Bytef*>(out.data());
    zs.avail_out = static_cast<uInt>(out.size());
    EXPECT_EQ(Z_STREAM_END, deflate(&zs, Z_FINISH));
    out.resize(static_cast<int>(zs.total_out));
    deflateEnd(&zs);
    return out;
}

QByteArray CompressibleText(int size, unsigned int seed)
{
    static const char* const words[] = {"alpha ", "bravo ", "charlie ", "delta ", "echo\n", "foxtrot ", "golf "};
    QByteArray out;
    std::uint32_t state = seed;
    while (out.size() < size) {
        state = state * 1103515245u + 12345u;
        out += words[(state >> 16) % 7];
    }
    out.resize(size);
    return out;
}

QByteArray LetterPattern(int size)
{
    QByteArray out(size, '\0');
    for (int i = 0; i < size; ++i)
        out[i] = static_cast<char>('a' + (i * 7) % 26);
    return out;
}

}  // namespace velatest
