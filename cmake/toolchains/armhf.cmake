# Cross compilation for 32-bit ARM (ARMv7, hard float) with Debian's compilers and
# multiarch libraries.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(triplet arm-linux-gnueabihf)
set(emulator qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
