// The resumable upload's block reply reader ("Range: " at a line start)
// over arbitrary reply bytes.
// Invariants: found exactly when some line of the reply starts with
// "Range: "; nothing found means 0; a found value stays the same when a line
// end and another Range line follow the reply (the first one counts).

#include "fuzz/FuzzInput.h"
#include "src/CQHttpSocketEngine.h"

namespace {

// The type of the reader's out parameter, whatever its width.
template <class T>
struct SavedOf;
template <class R, class L, class S>
struct SavedOf<R (*)(const unsigned char*, L, S&)>
{
    using type = S;
};
using Saved = SavedOf<decltype(&CQHttpSocketEngine::FindOLFileSavedLength)>::type;

const char KField[] = "Range: ";
constexpr std::size_t KFieldLen = sizeof KField - 1;

// Offset of the first line that starts with the field, or size.
std::size_t FirstFieldLine(const std::uint8_t* data, std::size_t size)
{
    for (std::size_t at = 0; at + KFieldLen <= size; ++at) {
        if ((at == 0 || data[at - 1] == '\n') && std::memcmp(data + at, KField, KFieldLen) == 0)
            return at;
    }
    return size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    auto reply = fuzzinput::Copy(data, size);
    Saved saved = 1;
    const bool found = CQHttpSocketEngine::FindOLFileSavedLength(reply.get(), static_cast<int>(size), saved);
    const std::size_t line = FirstFieldLine(data, size);
    FUZZ_CHECK(found == (line < size));
    if (!found) {
        FUZZ_CHECK(saved == 0);
        return 0;
    }
    // A line end and a second field behind the reply: the value is the same.
    std::string longer(reinterpret_cast<const char*>(data), size);
    longer += "\r\nRange: 77\r\n";
    auto more = fuzzinput::Copy(reinterpret_cast<const std::uint8_t*>(longer.data()), longer.size());
    Saved again = 0;
    FUZZ_CHECK(CQHttpSocketEngine::FindOLFileSavedLength(more.get(), static_cast<int>(longer.size()), again));
    FUZZ_CHECK(again == saved);
    return 0;
}
