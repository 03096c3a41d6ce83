#include "KROAllocationGuard.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

// Plain thread-local data, set up with the thread and never destroyed, so
// that counting works at any moment, also inside the allocator.
struct ThreadCounter {
    bool armed;
    std::size_t count;
};

thread_local ThreadCounter threadCounter __attribute__((tls_model("initial-exec"))) = {false, 0};

void noteAllocation() {
    if (threadCounter.armed) {
        ++threadCounter.count;
    }
}

} // namespace

KROAllocationGuard::KROAllocationGuard()
    : start_(threadCounter.count), wasArmed_(threadCounter.armed) {
    threadCounter.armed = true;
}

KROAllocationGuard::~KROAllocationGuard() {
    threadCounter.armed = wasArmed_;
}

std::size_t KROAllocationGuard::count() const {
    return threadCounter.count - start_;
}

#if defined(KRO_SANITIZER_BUILD)

// The sanitizers own malloc and operator new; they call this hook for every
// allocation of either kind.
#if __has_include(<sanitizer/allocator_interface.h>)
#include <sanitizer/allocator_interface.h>
#else
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*mallocHook)(const volatile void*,
                                                                            std::size_t),
                                                         void (*freeHook)(const volatile void*));
#endif

namespace {

void onSanitizerMalloc(const volatile void*, std::size_t) {
    noteAllocation();
}
void onSanitizerFree(const volatile void*) {}

[[maybe_unused]] const int sanitizerHooksInstalled =
    __sanitizer_install_malloc_and_free_hooks(onSanitizerMalloc, onSanitizerFree);

} // namespace

#else

// glibc's allocator under its own names; the replacements below count and
// forward to it, so every block is freed by the allocator that made it.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* pointer);
}

namespace {

bool isValidAlignment(std::size_t alignment) {
    return alignment != 0 && (alignment & (alignment - 1)) == 0;
}

void* countedMemalign(std::size_t alignment, std::size_t size) {
    noteAllocation();
    return __libc_memalign(alignment < sizeof(void*) ? sizeof(void*) : alignment, size);
}

} // namespace

extern "C" {

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
    return countedMemalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    if (!isValidAlignment(alignment)) {
        errno = EINVAL;
        return nullptr;
    }
    return countedMemalign(alignment, size);
}

int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
    if (!isValidAlignment(alignment) || alignment % sizeof(void*) != 0) {
        return EINVAL;
    }
    void* pointer = countedMemalign(alignment, size);
    if (!pointer) {
        return ENOMEM;
    }
    *result = pointer;
    return 0;
}
}

// operator new and delete in every form, over the counted functions above so
// that each allocation is counted once and every delete meets the free of the
// allocator that made the block.
namespace {

template <typename Allocate> void* allocateOrThrow(Allocate allocate) {
    for (;;) {
        if (void* pointer = allocate()) {
            return pointer;
        }
        std::new_handler handler = std::get_new_handler();
        if (!handler) {
            throw std::bad_alloc();
        }
        handler();
    }
}

void* allocate(std::size_t size) {
    return allocateOrThrow([size] { return malloc(size == 0 ? 1 : size); });
}

void* allocateAligned(std::size_t size, std::align_val_t alignment) {
    return allocateOrThrow([size, alignment] {
        return countedMemalign(static_cast<std::size_t>(alignment), size == 0 ? 1 : size);
    });
}

void* allocateNoThrow(std::size_t size) noexcept {
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}

void* allocateAlignedNoThrow(std::size_t size, std::align_val_t alignment) noexcept {
    try {
        return allocateAligned(size, alignment);
    } catch (...) {
        return nullptr;
    }
}

} // namespace

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateNoThrow(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateNoThrow(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return allocateAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return allocateAligned(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateAlignedNoThrow(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return allocateAlignedNoThrow(size, alignment);
}

void operator delete(void* pointer) noexcept {
    free(pointer);
}
void operator delete[](void* pointer) noexcept {
    free(pointer);
}
void operator delete(void* pointer, std::size_t) noexcept {
    free(pointer);
}
void operator delete[](void* pointer, std::size_t) noexcept {
    free(pointer);
}
void operator delete(void* pointer, const std::nothrow_t&) noexcept {
    free(pointer);
}
void operator delete[](void* pointer, const std::nothrow_t&) noexcept {
    free(pointer);
}
void operator delete(void* pointer, std::align_val_t) noexcept {
    free(pointer);
}
void operator delete[](void* pointer, std::align_val_t) noexcept {
    free(pointer);
}
void operator delete(void* pointer, std::size_t, std::align_val_t) noexcept {
    free(pointer);
}
void operator delete[](void* pointer, std::size_t, std::align_val_t) noexcept {
    free(pointer);
}
void operator delete(void* pointer, std::align_val_t, const std::nothrow_t&) noexcept {
    free(pointer);
}
void operator delete[](void* pointer, std::align_val_t, const std::nothrow_t&) noexcept {
    free(pointer);
}

#endif
