// The most memory one fuzz input made the code under test hold at once, counted through the
// sanitizer's allocation hooks, so that an input which decodes to far more than its budget is a
// failure even when the machine has the memory for it. Without a sanitizer nothing is counted.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

extern "C" {
// Weak, so that a replayer built without a sanitizer still links.
__attribute__((weak)) int
__sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void*, std::size_t),
                                          void (*onFree)(const volatile void*));
__attribute__((weak)) std::size_t __sanitizer_get_allocated_size(const volatile void* pointer);
}

namespace quelm::fuzz {

inline std::atomic<std::int64_t> heldBytes{0};
inline std::atomic<std::int64_t> peakBytes{0};

inline void countMalloc(const volatile void*, std::size_t size) {
    const auto held =
        heldBytes.fetch_add(static_cast<std::int64_t>(size)) + static_cast<std::int64_t>(size);
    auto peak = peakBytes.load();
    while (held > peak && !peakBytes.compare_exchange_weak(peak, held)) {
    }
}

inline void countFree(const volatile void* pointer) {
    heldBytes.fetch_sub(static_cast<std::int64_t>(__sanitizer_get_allocated_size(pointer)));
}

/// Measures from its making: bytes() is the most held at once since then, beyond what was
/// held then.
class AllocationPeak {
public:
    AllocationPeak() {
        static const bool installed =
            __sanitizer_install_malloc_and_free_hooks &&
            __sanitizer_install_malloc_and_free_hooks(countMalloc, countFree) != 0;
        counting_ = installed;
        start_ = heldBytes.load();
        peakBytes.store(start_);
    }

    std::int64_t bytes() const { return peakBytes.load() - start_; }

    /// Stops the run, saying why, when more than bound bytes were held at once.
    void require(std::uint64_t bound, std::size_t inputSize) const {
        if (!counting_ || bytes() <= static_cast<std::int64_t>(bound))
            return;
        std::fprintf(stderr,
                     "an input of %zu bytes made the reader hold %lld bytes at once, "
                     "more than its bound of %llu\n",
                     inputSize, static_cast<long long>(bytes()),
                     static_cast<unsigned long long>(bound));
        __builtin_trap();
    }

private:
    bool counting_ = false;
    std::int64_t start_ = 0;
};

} // namespace quelm::fuzz
