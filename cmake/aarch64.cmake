# Compiles for Linux on aarch64 with Debian's cross compiler, which scripts/setup --cross installs.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Tests run where there is an emulator; the programs find their C library beside the cross compiler.
find_program(SKIPLIST_EMULATOR qemu-aarch64)
if(SKIPLIST_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${SKIPLIST_EMULATOR} -L /usr/aarch64-linux-gnu)
endif()
