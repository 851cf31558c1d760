#include <benchmarks/support/CountedNew.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> allocations{0};

}  // namespace

// All other forms of new, except the over-aligned ones, end up here. They are kept apart from the code that uses them:
// once inlined, the compiler takes free() for the wrong way to give back what new returned.
void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const memory = std::malloc(size != 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

long TarnBenchmark::Allocations() {
    return allocations.load(std::memory_order_relaxed);
}
