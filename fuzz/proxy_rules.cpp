// Proxy URLs and no-proxy lists over arbitrary bytes: the input's first
// byte splits it into a list and a host (or a proxy URL).
// Invariants: nothing is read past either part (exactly sized copies); a
// parsed proxy has a host and a port in 1..65535; "*" in front of any list
// matches every non-empty host; a list matches a host the same way
// whatever the case of its ASCII letters.

#include "fuzz/FuzzInput.h"
#include "src/internal/ProxyRules_p.h"

#include <cctype>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 1)
        return 0;
    const std::size_t cut = std::min<std::size_t>(data[0], size - 1);
    const std::uint8_t* rest = data + 1;
    const std::size_t restSize = size - 1;
    auto list = fuzzinput::CopyText(rest, cut);
    auto host = fuzzinput::CopyText(rest + cut, restSize - cut);
    const int listLen = static_cast<int>(cut);
    const int hostLen = static_cast<int>(restSize - cut);

    velanet::ProxyAddress proxy;
    if (velanet::ParseProxyUrl(host.get(), hostLen, proxy))
        FUZZ_CHECK(!proxy.host.isEmpty() && proxy.port >= 1 && proxy.port <= 65535);

    // The same answer for the host in lower and in upper case.
    std::string lower(host.get(), static_cast<std::size_t>(hostLen));
    std::string upper = lower;
    for (std::size_t i = 0; i < lower.size(); ++i) {
        lower[i] = static_cast<char>(std::tolower(static_cast<unsigned char>(lower[i])));
        upper[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(upper[i])));
    }
    auto lowerCopy = fuzzinput::CopyText(reinterpret_cast<const std::uint8_t*>(lower.data()), lower.size());
    auto upperCopy = fuzzinput::CopyText(reinterpret_cast<const std::uint8_t*>(upper.data()), upper.size());
    FUZZ_CHECK(velanet::NoProxyMatches(list.get(), listLen, lowerCopy.get(), hostLen, 8080) ==
               velanet::NoProxyMatches(list.get(), listLen, upperCopy.get(), hostLen, 8080));

    std::string starred = "*," + std::string(list.get(), static_cast<std::size_t>(listLen));
    auto starCopy = fuzzinput::CopyText(reinterpret_cast<const std::uint8_t*>(starred.data()), starred.size());
    FUZZ_CHECK(velanet::NoProxyMatches(starCopy.get(), static_cast<int>(starred.size()), host.get(), hostLen, 1) ==
               (hostLen > 0));
    return 0;
}
