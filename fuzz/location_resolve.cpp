// Location resolution over arbitrary bytes: the first byte picks where the
// rest splits into the request URL and the Location.
// Invariants: the parts of a reference lie in order inside it; dot-segment
// removal never lengthens a path nor leaves a "/./" or "/../" in it; a
// Location with a scheme, or an empty one, comes back as it stands; a
// resolved one takes the request URL's scheme and is at most one byte longer
// than the two texts together.

#include "fuzz/FuzzInput.h"
#include "src/internal/LocationResolve_p.h"

namespace {

void CheckParts(const velanet::UriParts& p, int len)
{
    int at = 0;
    const auto part = [&](int start, int n, int separator) {
        if (start < 0)
            return;
        FUZZ_CHECK(start >= at + separator && n >= 0 && start + n <= len);
        at = start + n;
    };
    part(p.schemeStart, p.schemeLen, 0);
    part(p.authorityStart, p.authorityLen, 2);
    part(p.pathStart, p.pathLen, 0);
    part(p.queryStart, p.queryLen, 1);
    part(p.fragmentStart, p.fragmentLen, 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::size_t cut = data[0] % size;
    auto base = fuzzinput::Copy(data + 1, cut);
    auto location = fuzzinput::Copy(data + 1 + cut, size - 1 - cut);
    const char* b = reinterpret_cast<const char*>(base.get());
    const char* l = reinterpret_cast<const char*>(location.get());
    const int bLen = static_cast<int>(cut);
    const int lLen = static_cast<int>(size - 1 - cut);

    const velanet::UriParts r = velanet::SplitUriReference(l, lLen);
    CheckParts(r, lLen);
    const velanet::UriParts bp = velanet::SplitUriReference(b, bLen);
    CheckParts(bp, bLen);

    const CQSString path = velanet::RemoveDotSegments(l, lLen);
    FUZZ_CHECK(path.GetLength() <= lLen && path.Find("/./") < 0 && path.Find("/../") < 0);

    const CQSString out = velanet::ResolveLocation(b, bLen, l, lLen);
    if (lLen == 0 || r.schemeStart >= 0) {
        FUZZ_CHECK(out.GetLength() == lLen && (lLen == 0 || std::memcmp(out.GetDataPtr(), l, lLen) == 0));
    } else {
        FUZZ_CHECK(out.GetLength() <= bLen + lLen + 1);  // + the "/" of an empty base path
        if (bp.schemeStart >= 0)
            FUZZ_CHECK(out.GetLength() > bp.schemeLen && std::memcmp(out.GetDataPtr(), b, bp.schemeLen + 1) == 0);
    }
    return 0;
}
