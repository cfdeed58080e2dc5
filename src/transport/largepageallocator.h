#pragma once

// An allocator for arrays read at random positions, such as the memory tier's: on Linux, an array of 2 MiB or more
// is mapped on a 2 MiB boundary and offered to the kernel for huge pages, so that reads across it do not each miss
// the processor's address translation buffers. Smaller arrays, and other systems, use the ordinary heap.

#include <cstddef>
#include <cstdint>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Norvane::Cloud {

template <typename T> class LargePageAllocator {
public:
    using value_type = T;

    LargePageAllocator() = default;
    template <typename Other> LargePageAllocator(const LargePageAllocator<Other> &) noexcept { }

    T *allocate(std::size_t count)
    {
        if (count > SIZE_MAX / sizeof(T))
            throw std::bad_alloc();
        const std::size_t bytes = count * sizeof(T);
#if defined(__linux__)
        if (bytes >= hugePageBytes)
            return static_cast<T *>(mapAligned(roundedUp(bytes)));
#endif
        return static_cast<T *>(::operator new(bytes, std::align_val_t(alignof(T))));
    }

    void deallocate(T *pointer, std::size_t count) noexcept
    {
        const std::size_t bytes = count * sizeof(T);
#if defined(__linux__)
        if (bytes >= hugePageBytes) {
            munmap(pointer, roundedUp(bytes));
            return;
        }
#endif
        ::operator delete(pointer, std::align_val_t(alignof(T)));
    }

    friend bool operator==(const LargePageAllocator &, const LargePageAllocator &)
    {
        return true;
    }
    friend bool operator!=(const LargePageAllocator &, const LargePageAllocator &)
    {
        return false;
    }

private:
    static constexpr std::size_t hugePageBytes = std::size_t(2) << 20;

    static std::size_t roundedUp(std::size_t bytes)
    {
        return (bytes + hugePageBytes - 1) & ~(hugePageBytes - 1);
    }

#if defined(__linux__)
    // Maps one huge page more than needed and returns the unused ends, so that the array starts on a boundary.
    static void *mapAligned(std::size_t bytes)
    {
        if (bytes > SIZE_MAX - hugePageBytes)
            throw std::bad_alloc();
        const std::size_t mapped = bytes + hugePageBytes;
        void *map = mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED)
            throw std::bad_alloc();
        const auto start = reinterpret_cast<std::uintptr_t>(map);
        const std::uintptr_t aligned = (start + hugePageBytes - 1) & ~std::uintptr_t(hugePageBytes - 1);
        if (aligned != start)
            munmap(map, aligned - start);
        const std::uintptr_t end = aligned + bytes;
        if (end != start + mapped)
            munmap(reinterpret_cast<void *>(end), start + mapped - end);
        // Only a hint: without huge pages the array still works, with more misses.
        madvise(reinterpret_cast<void *>(aligned), bytes, MADV_HUGEPAGE);
        return reinterpret_cast<void *>(aligned);
    }
#endif
};

} // namespace Norvane::Cloud
