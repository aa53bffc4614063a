// TGzipUtil::Decompress, modes FM_Gzip and FM_Deflate, over arbitrary bytes.
// Byte 0 picks the mode (bit 0) and the output room (1..256 bytes, or the
// engine's 1024); the split plan (FuzzInput.h) follows. Run A gives the
// input whole, run B in the planned pieces; each call's rest is handed back
// while the result is FR_CallAgain.
// Invariants: the input left and the output written stay within what was
// given; FR_NeedInput leaves no input; in gzip mode the output of run A and
// run B agree (one a prefix of the other when a run stops at an error) and
// equal outright when both reach the end of the stream.

#include "fuzz/FuzzInput.h"
#include "src/GzipUtil.h"

#include <string>

namespace {

struct Decoded
{
    std::string out;
    int last = TGzipUtil::FR_NeedInput;
};

Decoded Run(FilterMode mode, int room, const std::uint8_t* in, std::size_t size, const fuzzinput::SplitPlan* plan)
{
    Decoded result;
    TGzipUtil gzip(mode, mode);
    FUZZ_CHECK(gzip.SetDecodeMode(mode) == TGzipUtil::KDone);
    std::unique_ptr<char[]> out(new char[static_cast<std::size_t>(room)]);
    std::size_t pos = 0;
    for (std::size_t piece = 0; pos < size; ++piece) {
        const int n = static_cast<int>(std::min<std::size_t>(plan ? plan->Piece(piece, 1024) : size, size - pos));
        auto block = fuzzinput::Copy(in + pos, static_cast<std::size_t>(n));
        pos += static_cast<std::size_t>(n);
        int inLen = n;
        char* p = reinterpret_cast<char*>(block.get());
        for (;;) {
            const int given = inLen;
            int outLen = room;
            result.last = gzip.Decompress(p, inLen, out.get(), outLen);
            FUZZ_CHECK(inLen >= 0 && inLen <= given && outLen >= 0 && outLen <= room);
            result.out.append(out.get(), static_cast<std::size_t>(outLen));
            if (result.last != TGzipUtil::FR_CallAgain)
                break;
            p += given - inLen;
        }
        if (result.last == TGzipUtil::FR_NeedInput)
            FUZZ_CHECK(inLen == 0);
        if (result.last == TGzipUtil::FR_StreamEnd || result.last == TGzipUtil::FR_Error)
            break;
    }
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 1)
        return 0;
    const FilterMode mode = (data[0] & 1) ? FM_Deflate : FM_Gzip;
    const int room = (data[0] >> 1) == 0 ? 1024 : (data[0] >> 1) * 2;
    const fuzzinput::SplitPlan plan = fuzzinput::ReadSplitPlan(data + 1, size - 1);
    const Decoded a = Run(mode, room, plan.payload, plan.payloadSize, nullptr);
    const Decoded b = Run(mode, room, plan.payload, plan.payloadSize, &plan);
    if (mode != FM_Gzip)
        return 0;
    if (a.last == TGzipUtil::FR_StreamEnd && b.last == TGzipUtil::FR_StreamEnd)
        FUZZ_CHECK(a.out == b.out);
    const std::string& shorter = a.out.size() <= b.out.size() ? a.out : b.out;
    const std::string& longer = a.out.size() <= b.out.size() ? b.out : a.out;
    FUZZ_CHECK(longer.compare(0, shorter.size(), shorter) == 0);
    return 0;
}
