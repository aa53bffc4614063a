// The proxy's reply to CONNECT (ReadConnectReply) over arbitrary bytes.
// Invariants: a head length lies inside the input and its status has three
// digits; the result for the bytes as they arrive (the whole head, then any
// prefix of it) agrees with the whole: a prefix shorter than the head is
// incomplete, or refused only when the whole is refused too.

#include "fuzz/FuzzInput.h"
#include "src/internal/ProxyTunnel_p.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const int len = static_cast<int>(std::min<std::size_t>(size, 1 << 16));
    auto whole = fuzzinput::Copy(data, static_cast<std::size_t>(len));
    int status = -1;
    const int head = velanet::ReadConnectReply(whole.get(), len, status);
    FUZZ_CHECK(head == velanet::KConnectReplyIncomplete || head == velanet::KConnectReplyMalformed ||
               (head > 0 && head <= len && status >= 0 && status <= 999));
    const int half = len / 2;
    auto prefix = fuzzinput::Copy(data, static_cast<std::size_t>(half));
    int prefixStatus = -1;
    const int first = velanet::ReadConnectReply(prefix.get(), half, prefixStatus);
    if (first > 0)
        FUZZ_CHECK(first == head && prefixStatus == status);
    else if (first == velanet::KConnectReplyMalformed)
        FUZZ_CHECK(head == velanet::KConnectReplyMalformed);
    else if (head > 0)
        FUZZ_CHECK(head > half);
    return 0;
}
