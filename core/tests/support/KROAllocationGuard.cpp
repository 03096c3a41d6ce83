#include "KROAllocationGuard.h"

#include <cerrno>

namespace {

// Plain thread-local data, never destroyed, so counting works even inside the allocator.
thread_local bool armed __attribute__((tls_model("initial-exec"))) = false;
thread_local std::size_t allocations __attribute__((tls_model("initial-exec"))) = 0;

void noteAllocation() {
    allocations += armed ? 1 : 0;
}

} // namespace

KROAllocationGuard::KROAllocationGuard() : start_(allocations), wasArmed_(armed) {
    armed = true;
}

KROAllocationGuard::~KROAllocationGuard() {
    armed = wasArmed_;
}

std::size_t KROAllocationGuard::count() const {
    return allocations - start_;
}

#if defined(KRO_SANITIZER_BUILD)

// The sanitizers call this hook for every allocation; GCC ships no header for it.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*mallocHook)(const volatile void*,
                                                                            std::size_t),
                                                         void (*freeHook)(const volatile void*));

namespace {

[[maybe_unused]] const int sanitizerHooksInstalled = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { noteAllocation(); }, [](const volatile void*) {});

} // namespace

#else

// The replacements count and forward to glibc's allocator, which operator new
// and delete call too, so they are counted without being replaced.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* pointer);

void* malloc(std::size_t size) noexcept {
    noteAllocation();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
    noteAllocation();
    return __libc_calloc(count, size);
}

void* realloc(void* pointer, std::size_t size) noexcept {
    noteAllocation();
    return __libc_realloc(pointer, size);
}

void free(void* pointer) noexcept {
    __libc_free(pointer);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    noteAllocation();
    return __libc_memalign(alignment < sizeof(void*) ? sizeof(void*) : alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return memalign(alignment, size);
}

int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
    if (alignment % sizeof(void*) != 0 || (alignment & (alignment - 1)) != 0) {
        return EINVAL;
    }
    *result = memalign(alignment, size);
    return *result ? 0 : ENOMEM;
}
}

#endif
