#ifndef VELANET_FUZZ_FUZZINPUT_H
#define VELANET_FUZZ_FUZZINPUT_H

// Helpers shared by the harnesses: exactly sized heap copies (so that
// AddressSanitizer sees any read past the input), split plans taken from
// the first input bytes, and a check that aborts with a message.
//
// Split plan layout: n = data[0] % 16, then n bytes, each a piece size
// (0 stands for the largest piece the harness allows); the sizes repeat
// until the input is used up.

#include <QCoreApplication>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdlib.h>
#include <memory>
#include <string>
#include <vector>

namespace fuzzinput {

// Aborts (a libFuzzer finding) when an invariant does not hold.
#define FUZZ_CHECK(cond)                                                                  \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "invariant failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (0)

// An exact heap copy of bytes (a one-byte block for an empty input, never read).
inline std::unique_ptr<unsigned char[]> Copy(const std::uint8_t* data, std::size_t size)
{
    std::unique_ptr<unsigned char[]> block(new unsigned char[size ? size : 1]);
    if (size)
        std::memcpy(block.get(), data, size);
    return block;
}

// A NUL-terminated heap copy (size + 1 bytes).
inline std::unique_ptr<char[]> CopyText(const std::uint8_t* data, std::size_t size)
{
    std::unique_ptr<char[]> block(new char[size + 1]);
    if (size)
        std::memcpy(block.get(), data, size);
    block[size] = '\0';
    return block;
}

// Piece sizes read from the front of the input; the payload is what follows.
struct SplitPlan
{
    std::vector<int> sizes;
    const std::uint8_t* payload = nullptr;
    std::size_t payloadSize = 0;

    // The size of piece number i, at most maxPiece.
    int Piece(std::size_t i, int maxPiece) const
    {
        if (sizes.empty())
            return maxPiece;
        const int s = sizes[i % sizes.size()];
        return std::min(s == 0 ? maxPiece : s, maxPiece);
    }
};

inline SplitPlan ReadSplitPlan(const std::uint8_t* data, std::size_t size)
{
    SplitPlan plan;
    if (size == 0)
        return plan;
    const std::size_t n = std::min<std::size_t>(data[0] % 16, size - 1);
    for (std::size_t i = 0; i < n; ++i)
        plan.sizes.push_back(data[1 + i]);
    plan.payload = data + 1 + n;
    plan.payloadSize = size - 1 - n;
    return plan;
}

// One QCoreApplication for the harnesses whose code needs an event loop
// object (sockets, timers); created on first use and kept.
inline void EnsureApplication()
{
    static int argc = 1;
    static char name[] = "velanet-fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* app = QCoreApplication::instance() ? nullptr : new QCoreApplication(argc, argv);
    (void)app;
}

// A private directory for the harnesses that read and write files, made
// on first use under TMPDIR (or /tmp) and kept for the whole run; ends in '/'.
inline const std::string& ScratchDirectory()
{
    static const std::string dir = [] {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base && *base ? base : "/tmp") + "/velanet-fuzz-XXXXXX";
        FUZZ_CHECK(mkdtemp(&pattern[0]) != nullptr);
        return pattern + "/";
    }();
    return dir;
}

// Replaces the file at path with the given bytes.
inline void WriteFile(const std::string& path, const std::uint8_t* data, std::size_t size)
{
    std::FILE* f = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(size == 0 || std::fwrite(data, 1, size, f) == size);
    FUZZ_CHECK(std::fclose(f) == 0);
}

}  // namespace fuzzinput

#endif
