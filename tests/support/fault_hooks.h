// Heap and thread-creation hooks for the binaries that count allocations or
// make them fail. Include from exactly one source file of a test binary: it
// replaces the global allocation functions and interposes pthread_create.
// Such binaries cannot run under valgrind.
#ifndef KEL_TESTS_SUPPORT_FAULT_HOOKS_H
#define KEL_TESTS_SUPPORT_FAULT_HOOKS_H

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stddef.h>
#include <stdlib.h>

#include <atomic>
#include <new>

namespace hooks {
// Allocations counted while `counting` is set (malloc too, where no
// sanitizer owns it).
std::atomic<bool> counting{false};
std::atomic<long> allocs{0}, deletes{0};  // deletes: of operator delete, while counting
// The n-th allocation from now on, on this thread, fails.
thread_local int failAllocIn = 0;
// The next `failCreates` calls of pthread_create fail with EAGAIN.
std::atomic<int> failCreates{0};

inline void note() {
    if (counting.load(std::memory_order_relaxed)) allocs.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace hooks

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define KEL_HOOKS_MALLOC 1
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* malloc(size_t n) { return hooks::note(), __libc_malloc(n); }
void* calloc(size_t n, size_t s) { return hooks::note(), __libc_calloc(n, s); }
void* realloc(void* p, size_t n) { return hooks::note(), __libc_realloc(p, n); }
}
#endif

// The other forms (arrays, nothrow, sized delete) forward to these.
inline void* hookedNew(size_t n, size_t align = alignof(max_align_t)) {
    if (hooks::failAllocIn > 0 && --hooks::failAllocIn == 0) throw std::bad_alloc();
#ifndef KEL_HOOKS_MALLOC
    hooks::note();
#endif
    void* p = nullptr;
    if (align <= alignof(max_align_t) ? (p = malloc(n ? n : 1)) != nullptr
                                      : posix_memalign(&p, align, n ? n : 1) == 0)
        return p;
    throw std::bad_alloc();
}

// Our operator new takes its memory from malloc, so free is the right match.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(size_t n) { return hookedNew(n); }
void* operator new(size_t n, std::align_val_t a) { return hookedNew(n, static_cast<size_t>(a)); }
inline void hookedDelete(void* p) { free(p), hooks::deletes += p && hooks::counting ? 1 : 0; }
void operator delete(void* p) noexcept { hookedDelete(p); }
void operator delete(void* p, size_t) noexcept { hookedDelete(p); }
void operator delete(void* p, std::align_val_t) noexcept { hookedDelete(p); }
void operator delete(void* p, size_t, std::align_val_t) noexcept { hookedDelete(p); }

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*body)(void*),
                              void* arg) noexcept {
    typedef int (*CreateFn)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static CreateFn real = reinterpret_cast<CreateFn>(dlsym(RTLD_NEXT, "pthread_create"));
    for (int n = hooks::failCreates.load(); n > 0;)
        if (hooks::failCreates.compare_exchange_weak(n, n - 1)) return EAGAIN;
    return real(thread, attr, body, arg);
}

#endif
