// Where the allocations are seen: the sanitizer reports them, otherwise this source replaces functions of the C
// library. operator new ends in malloc either way.
#include "support/allocationcount.h"

#include <cstddef>

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the libraries'
#if defined(__has_feature)
#    define KVSNMP_HAS_FEATURE(feature) __has_feature(feature)
#else
#    define KVSNMP_HAS_FEATURE(feature) 0
#endif

extern "C" {
#if defined(__SANITIZE_ADDRESS__) || KVSNMP_HAS_FEATURE(address_sanitizer)

int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void *, std::size_t),
                                              void (*onFree)(const volatile void *));

#else

void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
void *__libc_memalign(std::size_t alignment, std::size_t size);

void *malloc(std::size_t size)
{
    AllocationCount::note();
    return __libc_malloc(size);
}

void *calloc(std::size_t count, std::size_t size)
{
    AllocationCount::note();
    return __libc_calloc(count, size);
}

void *realloc(void *block, std::size_t size)
{
    AllocationCount::note();
    return __libc_realloc(block, size);
}

void *aligned_alloc(std::size_t alignment, std::size_t size)
{
    AllocationCount::note();
    return __libc_memalign(alignment, size);
}

#endif
}
// NOLINTEND(bugprone-reserved-identifier)

#if defined(__SANITIZE_ADDRESS__) || KVSNMP_HAS_FEATURE(address_sanitizer)
namespace {
const int hooked = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void *, std::size_t) { AllocationCount::note(); }, [](const volatile void *) {});
} // namespace
#endif
