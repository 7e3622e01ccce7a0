# Debian packages of vemo, one per install component (cmake/Install.cmake):
#
#   libvemo1     "runtime": the shared library under its SONAME; what a device needs to run
#                programs linked with vemo
#   libvemo-dev  "development": headers, libvemo.so link, static library, pkg-config file and
#                CMake package
#   vemo-tools   everything installed without a component: the reference daemon vemo_cloudd
#                and the command-line tools
#
# The daemon is kept out of libvemo1 on purpose: on a device the real cloud-service daemon owns
# /tmp/cloud_svr, and the runtime must not bring a stand-in that would compete for it. It is not
# in libvemo-dev either, because -dev is Multi-Arch: same (amd64 and armhf side by side for
# cross development) and a program in /usr/bin cannot be shared between architectures.
#
# Build them in a tree configured with -DCMAKE_INSTALL_PREFIX=/usr and
# -DCMAKE_INSTALL_LIBDIR=lib/<triplet> (Debian's multiarch directory, which GNUInstallDirs does
# not choose in a cross build), then `cpack -G DEB` there; scripts/package.sh does this for amd64
# and, through cmake/toolchain-armhf.cmake, for armhf.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vemo)
set(CPACK_PACKAGE_VENDOR vemo)
set(CPACK_PACKAGE_CONTACT "vemo maintainers <vemo@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# No Multi-Arch field: CPack of CMake 3.25 cannot write one, so libvemo1:amd64 and
# libvemo1:armhf do not install side by side; one architecture per machine is what devices and
# cross-build machines need.
set(CPACK_COMPONENTS_ALL runtime development Unspecified)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)

# The target's Debian architecture: CPack would otherwise ask dpkg, which names the build
# machine's even in a cross build.
set(vemo_deb_arch_of_x86_64-linux-gnu amd64)
set(vemo_deb_arch_of_arm-linux-gnueabihf armhf)
set(vemo_deb_arch_of_aarch64-linux-gnu arm64)
set(vemo_deb_arch_of_i386-linux-gnu i386)
if(DEFINED vemo_deb_arch_of_${CMAKE_LIBRARY_ARCHITECTURE})
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${vemo_deb_arch_of_${CMAKE_LIBRARY_ARCHITECTURE}})
elseif(CMAKE_CROSSCOMPILING)
  message(WARNING "no Debian architecture known for '${CMAKE_LIBRARY_ARCHITECTURE}': "
                  "set CPACK_DEBIAN_PACKAGE_ARCHITECTURE")
endif()

# Descriptions: the first line is the summary; CPack indents the rest and turns the empty line
# into the paragraph separator.

# Dependencies are stated rather than computed by CPack, whose dpkg-shlibdeps call knows nothing
# of a cross build's target architecture. They are what dpkg-shlibdeps computes for amd64 and
# armhf when told the architecture; scripts/package.sh checks that they still cover it.
set(VEMO_DEB_SYSTEM_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 11)")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvemo1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${VEMO_DEB_SYSTEM_DEPENDS}, libcjson1 (>= 1.7.10)")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"client library for the device's cloud-service daemon
Applications link libvemo to talk to the device's local cloud-service daemon over the Unix
socket /tmp/cloud_svr: requests to the cloud, handlers for requests from the cloud, reconnect.
The library also exports a memory-debugging allocator (the mw functions).

This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvemo-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# Exactly this version of the runtime: the static library and the headers come from the same
# build. cJSON's headers are part of vemo's interface.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libvemo1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libcjson-dev (>= 1.7.10)")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"client library for the device's cloud-service daemon - development files
Headers, the static library, the pkg-config file (vemo) and the CMake package
(find_package(vemo), target vemo::vemo) for building programs with libvemo.")

set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME vemo-tools)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_SECTION devel)
# The daemon links vemo statically, the command-line client the shared library of the same build.
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_DEPENDS
    "libvemo1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), ${VEMO_DEB_SYSTEM_DEPENDS}, libcjson1 (>= 1.7.10)")
set(CPACK_DEBIAN_UNSPECIFIED_DESCRIPTION
"reference cloud-service daemon and tools for libvemo
vemo_cloudd serves /tmp/cloud_svr as the device's cloud-service daemon does and plays the
cloud, so that programs using libvemo can be run and tested without a device or a network.
Not for devices that run the real daemon.")

include(CPack)
