// The DNS gateway reply scanner over arbitrary piece bytes.
// Invariants: at most one address per ";" of the piece; the text after the
// last ";" changes nothing; a leading item too short to be a candidate is
// skipped without touching the accumulator (the same addresses with "ab;"
// put in front).

#include "fuzz/FuzzInput.h"
#include "src/internal/DnsGatewayReply_p.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const int len = static_cast<int>(size);
    auto piece = fuzzinput::Copy(data, size);
    const std::vector<quint32> whole = velanet::ScanGatewayReply(piece.get(), len);
    FUZZ_CHECK(whole.size() <= static_cast<std::size_t>(std::count(data, data + size, ';')));

    const std::uint8_t* lastEnd = static_cast<const std::uint8_t*>(memrchr(data, ';', size));
    const std::size_t items = lastEnd ? static_cast<std::size_t>(lastEnd - data) + 1 : 0;
    auto head = fuzzinput::Copy(data, items);
    FUZZ_CHECK(velanet::ScanGatewayReply(head.get(), static_cast<int>(items)) == whole);

    std::string prefixed = "ab;";
    prefixed.append(reinterpret_cast<const char*>(data), size);
    auto shifted = fuzzinput::Copy(reinterpret_cast<const std::uint8_t*>(prefixed.data()), prefixed.size());
    FUZZ_CHECK(velanet::ScanGatewayReply(shifted.get(), static_cast<int>(prefixed.size())) == whole);
    return 0;
}
