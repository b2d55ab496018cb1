# 64-bit ARM (arm64) with Debian's cross toolchain (crossbuild-essential-arm64).
# Target libraries come from Debian's multiarch packages (libgtest-dev:arm64);
# the tests run under qemu-user.
set(TESK_TARGET_TRIPLET aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(TESK_TARGET_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
