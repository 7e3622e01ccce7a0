#!/usr/bin/env bash
# Builds vemo's Debian packages for amd64 and armhf into build/pkg/ and checks them with lintian:
#   libvemo1         the shared library (install component "runtime")
#   libvemo-dev      headers, libvemo.so link, libvemo.a, vemo.pc, CMake package ("development")
#   vemo-tools       the reference daemon and vemo-cli (everything installed without a component)
#   libvemo1-dbgsym, vemo-tools-dbgsym   the debug information stripped from the two above
# Each package is staged from `cmake --install`, its control file made by dpkg-gencontrol from
# packaging/debian/control (dependencies by dpkg-shlibdeps, the library's symbols checked by
# dpkg-gensymbols against packaging/debian/libvemo1.symbols) and built with dpkg-deb. CPack is not
# used because it cannot write Multi-Arch.
# Usage: scripts/package.sh [amd64|armhf ...] (default: both).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
arches=("$@")
[ ${#arches[@]} -gt 0 ] || arches=(amd64 armhf)
# The cross compilers, the armhf libraries and lintian.
"$root/scripts/setup_arm.sh"
umask 022
out="$root/build/pkg"
mkdir -p "$out"
meta="$root/packaging/debian"

fail() { echo "package: FAILED: $*" >&2; exit 1; }

version=$(sed -n 's/^project(vemo VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
deb_version=$(dpkg-parsechangelog -l "$meta/changelog" -S Version)
[ "${deb_version%-*}" = "$version" ] ||
  fail "packaging/debian/changelog is at $deb_version, the project at $version"

# strip_into PKG FILE...: moves the debug information of each file into PKG-dbgsym under its
# build id, as Debian's debug packages hold it, and strips the file as Debian does.
strip_into() {
  local pkg=$1 f id debug; shift
  for f in "$@"; do
    id=$(readelf -n "$f" | sed -n 's/.*Build ID: *//p')
    [ -n "$id" ] || fail "$f has no build id"
    debug="debian/$pkg-dbgsym/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug"
    mkdir -p "$(dirname "$debug")"
    "$triplet-objcopy" --only-keep-debug --compress-debug-sections "$f" "$debug"
    chmod 0644 "$debug"
    "$triplet-strip" --remove-section=.comment --remove-section=.note --strip-unneeded "$f"
    build_ids[$pkg]+="${build_ids[$pkg]:+ }$id"
  done
}

# doc PKG: the copyright, both changelogs and lintian's overrides, where Debian looks for them.
doc() {
  local pkg=$1 d="debian/$1/usr/share/doc/$1"
  mkdir -p "$d"
  cp "$meta/copyright" "$d/copyright"
  gzip -9n <"$meta/changelog" >"$d/changelog.Debian.gz"
  gzip -9n <"$root/CHANGELOG.md" >"$d/changelog.gz"
  if [ -f "$meta/$pkg.lintian-overrides" ]; then
    install -D -m 0644 "$meta/$pkg.lintian-overrides" "debian/$pkg/usr/share/lintian/overrides/$pkg"
  fi
}

# build PKG [dpkg-gencontrol options...]: control file, md5sums and the .deb.
build() {
  local pkg=$1; shift
  dpkg-gencontrol -p"${pkg%-dbgsym}" -P"debian/$pkg" -T"debian/${pkg%-dbgsym}.substvars" "$@"
  (cd "debian/$pkg" && find . -type f ! -path './DEBIAN/*' -printf '%P\0' | LC_ALL=C sort -z |
     xargs -0r md5sum >DEBIAN/md5sums)
  dpkg-deb --root-owner-group -Zxz --build "debian/$pkg" "$out/" >/dev/null
}

for arch in "${arches[@]}"; do
  case "$arch" in
    amd64) triplet=x86_64-linux-gnu; cross=();;
    armhf) triplet=arm-linux-gnueabihf; cross=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake");;
    *) echo "unknown architecture $arch" >&2; exit 2;;
  esac
  export DEB_HOST_ARCH=$arch DEB_HOST_MULTIARCH=$triplet DEB_HOST_GNU_TYPE=$triplet
  dir="$root/build/pkg-$arch"
  echo "=== $arch packages"
  # Debian's flags for the target (hardening included) under the build type that the tests and
  # the size budget measure. Libraries go to Debian's multiarch directory, which GNUInstallDirs
  # does not choose in a cross build.
  flags=$(cd "$root" && DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)
  (eval "$flags"
   export CFLAGS="$CPPFLAGS $CFLAGS" CXXFLAGS="$CPPFLAGS $CXXFLAGS" LDFLAGS
   # CMake takes CFLAGS and friends only when it writes a new cache.
   rm -f "$dir/CMakeCache.txt"
   "$root/scripts/build.sh" "$dir" "${cross[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
     -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$triplet" -DVEMO_BUILD_TESTS=OFF \
     -DVEMO_BUILD_EXAMPLES=OFF -DVEMO_BUILD_BENCH=OFF >"$dir.log" ||
     { tail -n 30 "$dir.log"; exit 1; })
  rm -f "$out"/*_"$arch".deb
  stage="$dir/stage"
  rm -rf "$stage" && mkdir -p "$stage/debian"
  cp "$meta/control" "$meta/changelog" "$stage/debian/"
  cd "$stage"
  declare -A build_ids=()
  lib="usr/lib/$triplet"
  for c in runtime:libvemo1 development:libvemo-dev Unspecified:vemo-tools; do
    DESTDIR="$stage/debian/${c#*:}" cmake --install "$dir" --component "${c%%:*}" >/dev/null
  done

  for f in libvemo1/$lib/libvemo.so.1 libvemo-dev/$lib/libvemo.so libvemo-dev/usr/include/vemo/vemo.h \
           libvemo-dev/$lib/cmake/vemo/vemoConfig.cmake vemo-tools/usr/bin/vemo_cloudd; do
    [ -e "debian/$f" ] || [ -L "debian/$f" ] || fail "$f is not staged"
  done
  grep -qx 'prefix=/usr' "debian/libvemo-dev/$lib/pkgconfig/vemo.pc" || fail "vemo.pc does not name /usr"
  # The shipped library, before it is stripped: no C++ runtime, 64-bit time, within budget.
  size_check=()
  [ "$arch" != armhf ] || size_check=(--size)
  CC="$triplet-gcc" "$root/scripts/check_library.sh" "debian/libvemo1/$lib/libvemo.so.$version" \
    "debian/libvemo-dev/$lib/libvemo.a" "${size_check[@]}"

  strip_into libvemo1 "debian/libvemo1/$lib/libvemo.so.$version"
  strip_into vemo-tools debian/vemo-tools/usr/bin/*
  "$triplet-strip" --strip-debug --remove-section=.comment --remove-section=.note \
    --enable-deterministic-archives "debian/libvemo-dev/$lib/libvemo.a"
  for pkg in libvemo1 libvemo-dev vemo-tools; do doc "$pkg"; done
  # Manual pages are shipped compressed, as Debian policy wants them.
  for m in debian/*/usr/share/man; do
    [ ! -d "$m" ] || find "$m" -type f ! -name '*.gz' -exec gzip -9n {} +
  done

  for pkg in libvemo1 libvemo-dev vemo-tools; do mkdir -p "debian/$pkg/DEBIAN"; done
  cp "$meta/libvemo1.shlibs" debian/libvemo1/DEBIAN/shlibs
  cp "$meta/libvemo1.triggers" debian/libvemo1/DEBIAN/triggers
  # Fails on any difference from the committed symbols file: an added name needs its entry (and
  # its version node), a lost one is an ABI break (docs/abi.md).
  dpkg-gensymbols -plibvemo1 -Pdebian/libvemo1 -c4 -I"$meta/libvemo1.symbols" ||
    fail "libvemo.so's exported names differ from packaging/debian/libvemo1.symbols (above)"
  dpkg-shlibdeps -Tdebian/libvemo1.substvars "debian/libvemo1/$lib/libvemo.so.$version"
  # On armhf it warns that vemo-cli's __aeabi_atexit is missing from libstdc++6's symbols file;
  # the dependency on libstdc++6 comes out right all the same.
  dpkg-shlibdeps -Tdebian/vemo-tools.substvars -S"$stage/debian/libvemo1" debian/vemo-tools/usr/bin/*
  for pkg in libvemo1 libvemo-dev vemo-tools; do build "$pkg"; done
  for pkg in libvemo1 vemo-tools; do
    mkdir -p "debian/$pkg-dbgsym/usr/share/doc" "debian/$pkg-dbgsym/DEBIAN"
    ln -s "$pkg" "debian/$pkg-dbgsym/usr/share/doc/$pkg-dbgsym"
    # Multi-Arch as the package's own stanza has it.
    build "$pkg-dbgsym" -DPackage="$pkg-dbgsym" \
      -DDepends="$pkg (= $deb_version)" -DSection=debug -DPriority=optional \
      -DDescription="debug symbols for $pkg" -DAuto-Built-Package=debug-symbols \
      -DBuild-Ids="${build_ids[$pkg]}"
  done
  cd "$root"

  for deb in "$out"/*_"$arch".deb; do
    echo "--- $(basename "$deb"): $(dpkg-deb --field "$deb" Depends)"
  done
  echo "--- lintian --pedantic (errors and warnings fail; overrides in packaging/debian)"
  lintian --pedantic --fail-on error,warning --tag-display-limit 0 "$out"/*_"$arch".deb ||
    fail "lintian found errors or warnings in the $arch packages"
done
echo "=== packages in $out:"
ls -1 "$out"
