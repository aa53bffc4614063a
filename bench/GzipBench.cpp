// Gzip body decoding: TGzipUtil against plain zlib doing the same work.
//
// 64 MiB of generated words are gzipped once with zlib. Both sides are fed
// the compressed body in the engine's 1024-byte input pieces and give their
// output in 1024-byte pieces, calling again while input remains:
//   BM_GzipUtil      the filter: header reader, raw inflate, trailer skip
//   BM_PlainInflate  zlib raw inflate after the fixed 10-byte header, the
//                    same work without the wrapper (the baseline)
//   BM_PlainGunzip   zlib with windowBits 31, which also checks the CRC-32;
//                    shown for reference only
// Every variant is checked once, outside the timing, to give back the text.

#include "src/GzipUtil.h"

#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

const size_t KTextSize = 64u << 20;
const int KPiece = 1024;
const int KGzipFixedHeader = 10;

std::string MakeText()
{
    std::mt19937 random(20261120);
    std::vector<std::string> vocabulary;
    for (int i = 0; i < 2000; ++i) {
        std::string word;
        const int len = 2 + static_cast<int>(random() % 10);
        for (int j = 0; j < len; ++j)
            word += static_cast<char>('a' + random() % 26);
        vocabulary.push_back(word);
    }
    std::string text;
    text.reserve(KTextSize + 16);
    while (text.size() < KTextSize) {
        // Skewed towards the first words, as in real text.
        const size_t a = random() % vocabulary.size();
        const size_t b = random() % vocabulary.size();
        text += vocabulary[a < b ? a : b];
        const unsigned sep = random() % 16;
        text += sep == 0 ? ".\n" : (sep == 1 ? ", " : " ");
    }
    text.resize(KTextSize);
    return text;
}

std::string Gzip(const std::string& text)
{
    z_stream s{};
    if (deflateInit2(&s, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 31, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        std::abort();
    std::string out(deflateBound(&s, static_cast<uLong>(text.size())), '\0');
    s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    s.avail_in = static_cast<uInt>(text.size());
    s.next_out = reinterpret_cast<Bytef*>(&out[0]);
    s.avail_out = static_cast<uInt>(out.size());
    if (deflate(&s, Z_FINISH) != Z_STREAM_END)
        std::abort();
    out.resize(s.total_out);
    deflateEnd(&s);
    return out;
}

struct Material
{
    std::string text;
    std::string gzip;
};

const Material& Data()
{
    static const Material material = [] {
        Material m;
        m.text = MakeText();
        m.gzip = Gzip(m.text);
        std::fprintf(stderr, "text %zu bytes, gzip %zu bytes (%.2f:1)\n", m.text.size(), m.gzip.size(),
                     static_cast<double>(m.text.size()) / static_cast<double>(m.gzip.size()));
        return m;
    }();
    return material;
}

// Output sink: each piece is handed to it as the engine hands it to its
// observer. With check set it compares against the text.
struct Sink
{
    const std::string* check = nullptr;
    size_t total = 0;
    bool ok = true;

    void Take(const char* data, int len)
    {
        if (check && (total + static_cast<size_t>(len) > check->size() ||
                      std::memcmp(check->data() + total, data, static_cast<size_t>(len)) != 0))
            ok = false;
        benchmark::DoNotOptimize(data);
        total += static_cast<size_t>(len);
    }
};

// The filter, driven as the HTTP engine drives it.
bool DecodeWithFilter(TGzipUtil& util, const std::string& gzip, Sink& sink)
{
    char out[KPiece];
    if (util.SetDecodeMode(FM_Gzip) != TGzipUtil::KDone)
        return false;
    bool ended = false;
    char* data = const_cast<char*>(gzip.data());
    for (size_t offset = 0; offset < gzip.size() && !ended; offset += KPiece) {
        const int pieceLen = static_cast<int>(gzip.size() - offset < KPiece ? gzip.size() - offset : KPiece);
        char* in = data + offset;
        int remaining = pieceLen;
        for (;;) {
            int inLen = remaining;
            int outLen = KPiece;
            const int r = util.Decompress(in, inLen, out, outLen);
            if (r == TGzipUtil::FR_Error)
                return false;
            sink.Take(out, outLen);
            if (r == TGzipUtil::FR_CallAgain) {
                in += remaining - inLen;
                remaining = inLen;
                continue;
            }
            ended = r == TGzipUtil::FR_StreamEnd;
            break;
        }
    }
    util.ResetFilter();
    return ended;
}

// Plain zlib, same pieces in and out.
bool DecodeWithZlib(const std::string& gzip, int windowBits, size_t skip, Sink& sink)
{
    char out[KPiece];
    z_stream s{};
    if (inflateInit2(&s, windowBits) != Z_OK)
        return false;
    bool ended = false;
    char* data = const_cast<char*>(gzip.data());
    for (size_t offset = skip; offset < gzip.size() && !ended; offset += KPiece) {
        const size_t pieceLen = gzip.size() - offset < KPiece ? gzip.size() - offset : KPiece;
        s.next_in = reinterpret_cast<Bytef*>(data + offset);
        s.avail_in = static_cast<uInt>(pieceLen);
        for (;;) {
            s.next_out = reinterpret_cast<Bytef*>(out);
            s.avail_out = KPiece;
            const int z = inflate(&s, Z_NO_FLUSH);
            if (z != Z_OK && z != Z_STREAM_END) {
                inflateEnd(&s);
                return false;
            }
            sink.Take(out, KPiece - static_cast<int>(s.avail_out));
            if (z == Z_STREAM_END) {
                ended = true;
                break;
            }
            if (s.avail_in == 0)
                break;
        }
    }
    inflateEnd(&s);
    return ended;
}

void Verify(benchmark::State& state, bool ended, const Sink& sink)
{
    if (!ended || !sink.ok || sink.total != Data().text.size())
        state.SkipWithError("decoded text differs from the original");
}

void BM_GzipUtil(benchmark::State& state)
{
    const Material& m = Data();
    TGzipUtil util(FM_Gzip, FM_Gzip);
    {
        Sink check{&m.text};
        Verify(state, DecodeWithFilter(util, m.gzip, check), check);
    }
    for (auto _ : state) {
        Sink sink;
        benchmark::DoNotOptimize(DecodeWithFilter(util, m.gzip, sink));
        benchmark::DoNotOptimize(sink.total);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(m.text.size()));
}

void BM_PlainInflate(benchmark::State& state)
{
    const Material& m = Data();
    {
        Sink check{&m.text};
        Verify(state, DecodeWithZlib(m.gzip, -MAX_WBITS, KGzipFixedHeader, check), check);
    }
    for (auto _ : state) {
        Sink sink;
        benchmark::DoNotOptimize(DecodeWithZlib(m.gzip, -MAX_WBITS, KGzipFixedHeader, sink));
        benchmark::DoNotOptimize(sink.total);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(m.text.size()));
}

void BM_PlainGunzip(benchmark::State& state)
{
    const Material& m = Data();
    {
        Sink check{&m.text};
        Verify(state, DecodeWithZlib(m.gzip, 31, 0, check), check);
    }
    for (auto _ : state) {
        Sink sink;
        benchmark::DoNotOptimize(DecodeWithZlib(m.gzip, 31, 0, sink));
        benchmark::DoNotOptimize(sink.total);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(m.text.size()));
}

BENCHMARK(BM_GzipUtil)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainInflate)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlainGunzip)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
