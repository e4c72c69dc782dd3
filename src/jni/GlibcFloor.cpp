// Keeps the library loadable on C libraries that are years older than the one it is linked against.
//
// The static C++ runtime asks the C library of the machine that builds for a few newer names. They
// are defined here instead, for this library alone: exports.map keeps them inside. What newer name
// remains is told by tests/check-library.sh, which knows the oldest C library allowed. Programs
// that link the runtime as shared libraries, such as the tests, do without this file.
//
// Threads: everything here may be called from any thread.
#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

// The names and their parameters are the C library's.
// NOLINTBEGIN(readability-inconsistent-*,bugprone-reserved-identifier,cert-dcl*,readability-non-const-parameter)
extern "C" {

// glibc 2.32. Zero always: shared pointers count atomically, as they must in a JVM, which has
// several threads long before it loads this library.
extern const char __libc_single_threaded;
constinit const char __libc_single_threaded = 0;

// glibc 2.34, which moved it out of another library. The unwinder fills a table of constants by it.
int pthread_once(pthread_once_t* control, void (*routine)()) {
    constexpr int running = 1;
    constexpr int done = 2;
    std::atomic_ref<int> state(*control);
    // Acquire pairs with the release below: who finds it done also finds what the routine wrote.
    int seen = PTHREAD_ONCE_INIT;
    if (state.compare_exchange_strong(seen, running, std::memory_order_acquire)) {
        routine();
        state.store(done, std::memory_order_release);
        return 0;
    }
    while (state.load(std::memory_order_acquire) != done) sched_yield();
    return 0;
}

// glibc 2.34. Only its address is read, to tell whether the process can have threads.
int __pthread_key_create(pthread_key_t* /*key*/, void (* /*destructor*/)(void*)) {
    return ENOSYS;
}

// glibc 2.34, which moved them as well: the versions from before, which every C library has. Weak:
// a program that loads Java in an uncommon way may keep that other library to itself, and then
// there are no keys.
#ifdef __x86_64__
#define FROM_THE_START(name) asm(".symver first_" #name "," #name "@GLIBC_2.2.5")
#else
#define FROM_THE_START(name) asm(".symver first_" #name "," #name "@GLIBC_2.17")
#endif
[[gnu::weak]] int first_pthread_key_create(pthread_key_t* key, void (*destructor)(void*));
[[gnu::weak]] int first_pthread_key_delete(pthread_key_t key);
[[gnu::weak]] int first_pthread_setspecific(pthread_key_t key, std::uintptr_t value);
FROM_THE_START(pthread_key_create);
FROM_THE_START(pthread_key_delete);
FROM_THE_START(pthread_setspecific);

int pthread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
    return first_pthread_key_create != nullptr ? first_pthread_key_create(key, destructor) : ENOSYS;
}

int pthread_key_delete(pthread_key_t key) {
    return first_pthread_key_delete != nullptr ? first_pthread_key_delete(key) : ENOSYS;
}

int pthread_setspecific(pthread_key_t key, const void* value) {
    if (first_pthread_setspecific == nullptr) return ENOSYS;
    return first_pthread_setspecific(key, reinterpret_cast<std::uintptr_t>(value));
}

// glibc 2.38, for which newer compilers write strtoul: it reads binary numbers too. The runtime
// reads sizes from a variable of the environment by it.
unsigned long first_strtoul(const char* text, char** end, int base);
FROM_THE_START(strtoul);

unsigned long __isoc23_strtoul(const char* text, char** end, int base) {
    return first_strtoul(text, end, base);
}

#ifdef DLFO_STRUCT_HAS_EH_DBASE
extern const ElfW(Ehdr) __ehdr_start __attribute__((visibility("hidden")));

// glibc 2.35. By it the unwinder finds the tables of the code at `address`. An exception of this
// library is caught by this library, so its own tables are all that are ever needed.
int _dl_find_object(void* address, dl_find_object* result) {
    const auto base = reinterpret_cast<std::uintptr_t>(&__ehdr_start);
    const auto* const headers = reinterpret_cast<const ElfW(Phdr)*>(base + __ehdr_start.e_phoff);
    const auto* const headersEnd = headers + __ehdr_start.e_phnum;
    std::uintptr_t end = base;
    std::uintptr_t tables = 0;
    for (const auto* header = headers; header != headersEnd; ++header) {
        if (header->p_type == PT_LOAD) end = base + header->p_vaddr + header->p_memsz;
        if (header->p_type == PT_GNU_EH_FRAME) tables = base + header->p_vaddr;
    }
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    if (wanted < base || wanted >= end || tables == 0) return -1;
    *result = {};
    result->dlfo_map_start = reinterpret_cast<void*>(base);
    result->dlfo_map_end = reinterpret_cast<void*>(end);
    result->dlfo_eh_frame = reinterpret_cast<void*>(tables);
    return 0;
}
#endif
}
// NOLINTEND(readability-inconsistent-*,bugprone-reserved-identifier,cert-dcl*,readability-non-const-parameter)
