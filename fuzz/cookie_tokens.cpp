// CookieParser over arbitrary text: the tokenisers walked to the end of a
// writable copy, HTParseTime, HTMake_month, the host finders and
// strcasecomp.
// Invariants: every token and cursor stays inside the text; a walk ends
// within one step per byte; month indices are 0..11; host spans lie inside
// the text (a host without "/" keeps the text's length); strcasecomp is
// zero on equal texts and antisymmetric in sign.

#include "fuzz/FuzzInput.h"
#include "src/CookieParser.h"

namespace {

using Tokeniser = char* (*)(char**);

// Walks one tokeniser over a fresh copy until it answers null.
void Walk(Tokeniser next, const std::uint8_t* data, std::size_t size)
{
    auto text = fuzzinput::CopyText(data, size);
    char* const begin = text.get();
    char* const end = begin + std::strlen(begin);
    char* cursor = begin;
    for (std::size_t steps = 0;; ++steps) {
        FUZZ_CHECK(steps <= size + 1);
        char* token = next(&cursor);
        if (!token)
            break;
        FUZZ_CHECK(token >= begin && token <= end && cursor >= begin && cursor <= end);
    }
}

int Sign(int v) { return (v > 0) - (v < 0); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Walk(&CookieParser::HTParseNextField, data, size);
    Walk(&CookieParser::HTParseNextValue, data, size);
    Walk(&CookieParser::HTParseNextParam, data, size);

    auto text = fuzzinput::CopyText(data, size);
    const char* const begin = text.get();
    const char* const end = begin + std::strlen(begin);
    (void)CookieParser::HTParseTime(begin);

    const char* after = nullptr;
    const int month = CookieParser::HTMake_month(begin, &after);
    FUZZ_CHECK(month >= 0 && month < CookieParser::KMonthCount && after >= begin && after <= end);

    int length = 0;
    if (const char* host = CookieParser::HTFindFullHost(begin, length))
        // Without a "/" the length stays the whole text's (documented).
        FUZZ_CHECK(host >= begin && host <= end && length >= 0 && (host + length <= end || begin + length == end));
    if (const char* parent = CookieParser::HTFindFatherHost(begin, length))
        FUZZ_CHECK(parent >= begin && length >= 0 && parent + length <= end);

    const std::size_t half = size / 2;
    auto first = fuzzinput::CopyText(data, half);
    auto second = fuzzinput::CopyText(data + half, size - half);
    FUZZ_CHECK(CookieParser::strcasecomp(first.get(), first.get()) == 0);
    FUZZ_CHECK(Sign(CookieParser::strcasecomp(first.get(), second.get())) ==
               -Sign(CookieParser::strcasecomp(second.get(), first.get())));
    return 0;
}
