# 32-bit ARM (armhf: ARMv7, hard float) with Debian's cross toolchain
# (crossbuild-essential-armhf). Target libraries come from Debian's multiarch
# packages (libgtest-dev:armhf); the tests run under qemu-user.
set(TESK_TARGET_TRIPLET arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(TESK_TARGET_EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
# GCC notes every std::vector iterator whose passing changed in GCC 7.1; all
# the code here is built by one compiler, so the note says nothing.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
