// What the linker takes for libpthread.so.0, in which C libraries before glibc 2.34 have these
// names.
//
// Linked against the C library of a newer machine, the library would ask for them in libc.so.6, and
// not load before glibc 2.30 in a JVM whose launcher has libc.so.6 first. Found here, they are
// asked for by name alone, whichever file and version has them. No code of this file ever runs, or
// ships: every glibc has a libpthread.so.0 of its own.

extern "C" {
void __pthread_key_create() {}  // NOLINT(bugprone-reserved-identifier,cert-dcl*)
void pthread_key_create() {}
void pthread_key_delete() {}
void pthread_once() {}
void pthread_setspecific() {}
}
