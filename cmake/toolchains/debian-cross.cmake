# Shared by the Debian cross toolchain files, which set TESK_TARGET_TRIPLET,
# CMAKE_SYSTEM_PROCESSOR and TESK_TARGET_EMULATOR before including it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${TESK_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TESK_TARGET_TRIPLET}-g++)

# Debian's cross compilers use the whole file system as their sysroot: the C
# library sits in /usr/<triplet>, packages installed for the target
# architecture in /usr/lib/<triplet>. Naming the architecture makes
# find_package look in the latter and never at the host's libraries.
set(CMAKE_LIBRARY_ARCHITECTURE ${TESK_TARGET_TRIPLET})
set(CMAKE_FIND_ROOT_PATH /usr/${TESK_TARGET_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# ctest runs the target's binaries through qemu-user. Their dynamic loader
# and run-time libraries come from the target's multiarch packages (libc6,
# libstdc++6), at the paths a device has. qemu's -L would serve them from
# /usr/<triplet> instead, but it also redirects every absolute path that
# exists there, "/" included, so the tests' files would land in that folder.
find_program(TESK_QEMU ${TESK_TARGET_EMULATOR} REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${TESK_QEMU})
