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

#include <cstdint>

// The names and their parameters are the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)
extern "C" {

// glibc 2.32. Zero always: shared pointers count atomically, as they must in a JVM, which has
// several threads long before it loads this library.
extern const char __libc_single_threaded;
constinit const char __libc_single_threaded = 0;

// glibc 2.38, for which newer compilers write strtoul: it reads binary numbers too. The runtime
// reads sizes from a variable of the environment by it. So here is strtoul, of the version that
// every C library has.
unsigned long first_strtoul(const char* text, char** end, int base);
#ifdef __x86_64__
asm(".symver first_strtoul,strtoul@GLIBC_2.2.5");
#else
asm(".symver first_strtoul,strtoul@GLIBC_2.17");
#endif

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
// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
