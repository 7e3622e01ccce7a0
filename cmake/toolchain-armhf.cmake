# Cross build for the device: 32-bit ARM Linux, hard-float ABI (armhf), with Debian's
# arm-linux-gnueabihf compilers. Libraries (cJSON, GoogleTest) and the runtime come from Debian's
# multiarch archive (libcjson-dev:armhf, ...) under /usr/lib/arm-linux-gnueabihf, so there is no
# separate sysroot: scripts/setup_arm.sh installs all of it.
#
#   cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# Test programs run under the user-mode emulator qemu-arm (CMAKE_CROSSCOMPILING_EMULATOR), both
# when gtest_discover_tests lists their cases and when ctest runs them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(VEMO_CROSS_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${VEMO_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VEMO_CROSS_TRIPLET}-g++)
# Debian's cross compilers report this themselves; saying it keeps find_package() and
# find_library() in /usr/lib/arm-linux-gnueabihf even before the compiler has been probed.
set(CMAKE_LIBRARY_ARCHITECTURE ${VEMO_CROSS_TRIPLET})

# 64-bit time and file offsets for 32-bit targets are set by the project itself
# (CMakeLists.txt), so that they hold with any toolchain file.

# Host programs (pkg-config, the emulator, scripts' tools) are the build machine's; libraries,
# headers and CMake packages of the target are found through the multiarch directories above.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config must not hand the host's libraries to the target's link: only the armhf .pc files.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${VEMO_CROSS_TRIPLET}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The emulator finds the armhf dynamic loader and libraries of the multiarch runtime
# (libc6:armhf, libstdc++6:armhf, libcjson1:armhf) in their usual places, so it needs no -L.
# A program that executes another armhf program (the daemon, the allocator's demo) relies on the
# kernel's binfmt_misc entry for qemu-arm, which scripts/setup_arm.sh registers.
find_program(VEMO_QEMU_ARM qemu-arm)
if(VEMO_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VEMO_QEMU_ARM})
endif()
