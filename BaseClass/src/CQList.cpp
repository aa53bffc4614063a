#include "BaseClass/src/CQList.h"

#include <cstddef>
#include <limits>
#include <new>

CQPlex* CQPlex::Create(CQPlex** chain, unsigned count, unsigned elementSize)
{
    if (chain == nullptr)
        return nullptr;
    // No object may be larger than the largest pointer difference; a request
    // beyond it is refused rather than handed to the allocator.
    const std::size_t maxBytes =
        static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max()) - sizeof(CQPlex);
    if (elementSize != 0 && count > maxBytes / elementSize)
        return nullptr;
    const std::size_t bytes = sizeof(CQPlex) + static_cast<std::size_t>(count) * elementSize;

    // operator new returns memory aligned for max_align_t, the alignment of
    // the header, so the element area that follows it is aligned as well.
    void* raw = ::operator new(bytes, std::nothrow);
    if (raw == nullptr)
        return nullptr;
    CQPlex* block = ::new (raw) CQPlex;
    block->pNext = *chain;
    *chain = block;
    return block;
}

void CQPlex::FreeDataChain()
{
    CQPlex* block = this;
    while (block != nullptr)
    {
        CQPlex* next = block->pNext;
        block->~CQPlex();
        ::operator delete(static_cast<void*>(block));
        block = next;
    }
}
