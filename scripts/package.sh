#!/usr/bin/env bash
# Builds vemo's Debian packages (libvemo1, libvemo-dev, vemo-tools; see cmake/Packaging.cmake)
# for amd64 and armhf into build/pkg/, and checks each with dpkg-deb: its fields, its files, the
# architecture of its programs and the C library floor that its Depends states.
# Usage: scripts/package.sh [amd64|armhf ...] (default: both).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
arches=("$@")
[ ${#arches[@]} -gt 0 ] || arches=(amd64 armhf)
version=$(sed -n 's/^project(vemo VERSION \([0-9.]*\).*/\1/p' "$root/CMakeLists.txt")
out="$root/build/pkg"
mkdir -p "$out"

failures=0
fail() { echo "package: FAILED: $*" >&2; failures=$((failures + 1)); }

# check_contents DEB MUST_HAVE_REGEX... : every regex matches a line of the listing.
check_contents() {
  local deb=$1; shift
  local listing
  listing=$(dpkg-deb --contents "$deb" | awk '{ $1=$2=$3=$4=$5=""; sub(/^ +/, ""); print }')
  for want in "$@"; do
    grep -Eq "$want" <<<"$listing" || fail "$(basename "$deb") has no entry matching $want"
  done
}

# check_absent DEB REGEX...: no line of the listing matches.
check_absent() {
  local deb=$1; shift
  local listing
  listing=$(dpkg-deb --contents "$deb" | awk '{ $1=$2=$3=$4=$5=""; sub(/^ +/, ""); print }')
  for unwanted in "$@"; do
    if grep -Eq "$unwanted" <<<"$listing"; then fail "$(basename "$deb") holds $unwanted"; fi
  done
}

# glibc_floor FILE...: the highest GLIBC_ symbol version the files need.
glibc_floor() {
  objdump -T "$@" 2>/dev/null | grep -o 'GLIBC_[0-9.]*' | sed 's/GLIBC_//' | sort -V | tail -n1
}

for arch in "${arches[@]}"; do
  case "$arch" in
    amd64) "$root/scripts/setup.sh"; triplet=x86_64-linux-gnu; machine='X86-64'; cross=();;
    armhf) "$root/scripts/setup_arm.sh"; triplet=arm-linux-gnueabihf; machine='ARM'
           cross=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake");;
    *) echo "unknown architecture $arch" >&2; exit 2;;
  esac
  dir="$root/build/pkg-$arch"
  echo "=== $arch packages"
  # /usr as the prefix puts the libraries in the multiarch directory /usr/lib/$triplet.
  "$root/scripts/build.sh" "$dir" "${cross[@]}" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX=/usr -DVEMO_BUILD_TESTS=OFF -DVEMO_BUILD_EXAMPLES=OFF \
    -DVEMO_BUILD_BENCH=OFF
  rm -rf "$dir/packages"
  (cd "$dir" && cpack -G DEB >"$dir/cpack.log") || { cat "$dir/cpack.log"; exit 1; }

  lib="usr/lib/$triplet"
  for name in libvemo1 libvemo-dev vemo-tools; do
    deb="$dir/packages/${name}_${version}-1_${arch}.deb"
    if [ ! -f "$deb" ]; then
      fail "$(basename "$deb") was not made"
      continue
    fi
    cp "$deb" "$out/"
    deb="$out/$(basename "$deb")"
    echo "--- $(basename "$deb")"
    dpkg-deb --info "$deb" | sed -n 's/^ \(Package\|Version\|Architecture\|Section\|Depends\): /  \1: /p'
    [ "$(dpkg-deb --field "$deb" Package)" = "$name" ] || fail "$deb: wrong Package field"
    [ "$(dpkg-deb --field "$deb" Architecture)" = "$arch" ] || fail "$deb: Architecture is not $arch"
  done

  runtime="$out/libvemo1_${version}-1_${arch}.deb"
  dev="$out/libvemo-dev_${version}-1_${arch}.deb"
  tools="$out/vemo-tools_${version}-1_${arch}.deb"
  [ -f "$runtime" ] && [ -f "$dev" ] && [ -f "$tools" ] || continue

  check_contents "$runtime" "^\./$lib/libvemo\.so\.$version\$" "^\./$lib/libvemo\.so\.1 -> libvemo\.so\.$version\$"
  check_absent "$runtime" "^\./$lib/libvemo\.so( |\$)" '^\./usr/include/' '^\./usr/bin/'
  check_contents "$dev" '^\./usr/include/vemo/vemo\.h$' '^\./usr/include/vemo/mw\.h$' \
    "^\./$lib/libvemo\.so -> libvemo\.so\.1\$" "^\./$lib/libvemo\.a\$" "^\./$lib/pkgconfig/vemo\.pc\$" \
    "^\./$lib/cmake/vemo/vemoConfig\.cmake\$" "^\./$lib/cmake/vemo/vemoTargets\.cmake\$"
  check_absent "$dev" "^\./$lib/libvemo\.so\.$version\$" '^\./usr/bin/'
  check_contents "$tools" '^\./usr/bin/vemo_cloudd$'
  check_absent "$tools" '^\./usr/include/' "^\./$lib/"
  [[ "$(dpkg-deb --field "$dev" Depends)" == *"libvemo1 (= $version-1)"* ]] ||
    fail "libvemo-dev does not depend on this very libvemo1"
  [[ "$(dpkg-deb --field "$runtime" Depends)" == *libcjson1* ]] || fail "libvemo1 does not depend on libcjson1"
  [[ "$(dpkg-deb --field "$dev" Depends)" == *libcjson-dev* ]] || fail "libvemo-dev does not depend on libcjson-dev"

  # What is inside: programs of the package's architecture, a pkg-config file for /usr, and no
  # C library symbol newer than the stated floor.
  x="$dir/unpacked"
  rm -rf "$x" && mkdir -p "$x"
  for deb in "$runtime" "$dev" "$tools"; do dpkg-deb -x "$deb" "$x"; done
  for f in "$x/$lib/libvemo.so.$version" "$x/usr/bin/vemo_cloudd"; do
    readelf -h "$f" | grep -q "Machine: *.*$machine" || fail "$(basename "$f") is not built for $arch"
  done
  grep -qx 'prefix=/usr' "$x/$lib/pkgconfig/vemo.pc" || fail "vemo.pc does not name /usr"
  floor=$(sed -n 's/.*libc6 (>= \([0-9.]*\)).*/\1/p' <<<"$(dpkg-deb --field "$runtime" Depends)")
  need=$(glibc_floor "$x/$lib/libvemo.so.$version" "$x"/usr/bin/*)
  if [ "$(printf '%s\n%s\n' "$need" "$floor" | sort -V | tail -n1)" != "$floor" ]; then
    fail "the programs need GLIBC_$need, the packages state libc6 (>= $floor)"
  fi
  echo "  C library symbols up to GLIBC_$need (stated floor $floor)"
done

if [ $failures -ne 0 ]; then
  echo "package: $failures problems" >&2
  exit 1
fi
echo "=== packages in $out:"
ls -1 "$out"
