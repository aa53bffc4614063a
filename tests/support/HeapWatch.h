#ifndef VELANET_HEAPWATCH_H
#define VELANET_HEAPWATCH_H

// The heap as a test sees it: whether given blocks were freed (for
// destructors that own memory), and nothrow allocations that fail on
// demand (for the paths the library takes when new (std::nothrow) answers
// null). The global operators new and delete of the test binary are
// replaced by ones that go to malloc and free; the library calls them too
// (the executable's definitions win over the C++ runtime's).
//
// Include this header in exactly one file of a test binary (it defines the
// replacement operators, which may exist only once per program).

#include <cstddef>
#include <cstdlib>
#include <new>

namespace velatest {

struct HeapWatchSlot
{
    const void* block = nullptr;
    bool freed = false;
};

class HeapWatch
{
public:
    // Starts watching block (the address new or new[] gave); forgets older ones.
    static void Watch(const void* block)
    {
        for (auto& slot : s_slots) {
            if (!slot.block) {
                slot.block = block;
                slot.freed = false;
                return;
            }
        }
        std::abort();  // more blocks than a test needs
    }
    // Whether block, watched before, has been freed since.
    static bool Freed(const void* block)
    {
        for (const auto& slot : s_slots) {
            if (slot.block == block)
                return slot.freed;
        }
        return false;
    }
    static void Clear()
    {
        for (auto& slot : s_slots)
            slot = HeapWatchSlot{};
    }
    static void Release(void* p) noexcept
    {
        if (p) {
            for (auto& slot : s_slots) {
                if (slot.block == p)
                    slot.freed = true;
            }
        }
        std::free(p);
    }
    // The nothrow allocation after the next skip ones answers null, and so
    // does every one after it until StopFailing.
    static void FailNothrowAfter(int skip)
    {
        s_nothrowSkip = skip;
        s_failing = true;
    }
    static void StopFailing() { s_failing = false; }
    // Null when the nothrow allocation is to fail.
    static void* AllocateNothrow(std::size_t n) noexcept
    {
        if (s_failing) {
            if (s_nothrowSkip <= 0)
                return nullptr;
            --s_nothrowSkip;
        }
        return std::malloc(n ? n : 1);
    }
    static void* Allocate(std::size_t n)
    {
        void* p = std::malloc(n ? n : 1);
        if (!p)
            throw std::bad_alloc();
        return p;
    }

private:
    static inline HeapWatchSlot s_slots[16];
    static inline bool s_failing = false;
    static inline int s_nothrowSkip = 0;
};

}  // namespace velatest

void* operator new(std::size_t n)
{
    return velatest::HeapWatch::Allocate(n);
}
void* operator new[](std::size_t n)
{
    return velatest::HeapWatch::Allocate(n);
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept
{
    return velatest::HeapWatch::AllocateNothrow(n);
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept
{
    return velatest::HeapWatch::AllocateNothrow(n);
}
void operator delete(void* p) noexcept
{
    velatest::HeapWatch::Release(p);
}
void operator delete[](void* p) noexcept
{
    velatest::HeapWatch::Release(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    velatest::HeapWatch::Release(p);
}
void operator delete[](void* p, std::size_t) noexcept
{
    velatest::HeapWatch::Release(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept
{
    velatest::HeapWatch::Release(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    velatest::HeapWatch::Release(p);
}

#endif
