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

# shlibs_depends ARCH TRIPLET LIBDIR FILE...: the dependencies that dpkg-shlibdeps computes for
# the files from the symbol versions they use (the foreign architecture's libraries included).
# libvemo itself, in LIBDIR, has no shlibs file: a file linked to it is checked apart.
shlibs_depends() {
  local arch=$1 triplet=$2 libdir=$3; shift 3
  local d
  d=$(mktemp -d)
  mkdir "$d/debian"
  printf 'Source: vemo\n\nPackage: vemo\nArchitecture: any\n' >"$d/debian/control"
  (cd "$d" && DEB_HOST_ARCH=$arch DEB_HOST_MULTIARCH=$triplet DEB_HOST_GNU_TYPE=$triplet \
     dpkg-shlibdeps -O --ignore-missing-info -l"$libdir" "$@" 2>/dev/null) | sed -n 's/^shlibs:Depends=//p'
  rm -rf "$d"
}

# check_covers DEB COMPUTED: each "name (>= version)" of COMPUTED is stated in DEB's Depends
# with at least that version.
check_covers() {
  local deb=$1 computed=$2 stated item name version have
  stated=$(dpkg-deb --field "$deb" Depends)
  IFS=',' read -ra items <<<"$computed"
  for item in "${items[@]}"; do
    name=$(awk '{print $1}' <<<"$item")
    version=$(sed -n 's/.*(>= \(.*\)).*/\1/p' <<<"$item")
    have=$(sed -n "s/.*\b$name (>= \([^)]*\)).*/\1/p" <<<"$stated")
    if [ -z "$have" ]; then
      [[ ",$stated," == *", $name,"* || "$stated" == "$name"* ]] && [ -z "$version" ] ||
        fail "$(basename "$deb") does not state $item"
    elif [ -n "$version" ] && ! dpkg --compare-versions "$have" ge "$version"; then
      fail "$(basename "$deb") states $name (>= $have), its files need $item"
    fi
  done
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
  # Libraries go to Debian's multiarch directory; GNUInstallDirs chooses it by itself only for
  # native builds with the prefix /usr, so it is said for both.
  "$root/scripts/build.sh" "$dir" "${cross[@]}" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$triplet" -DVEMO_BUILD_TESTS=OFF -DVEMO_BUILD_EXAMPLES=OFF \
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

  # What is inside: programs of the package's architecture, a pkg-config file for /usr, and
  # stated dependencies that cover what the files need.
  x="$dir/unpacked"
  rm -rf "$x" && mkdir -p "$x"
  for deb in "$runtime" "$dev" "$tools"; do dpkg-deb -x "$deb" "$x"; done
  for f in "$x/$lib/libvemo.so.$version" "$x/usr/bin/vemo_cloudd"; do
    readelf -h "$f" | grep -q "Machine: *.*$machine" || fail "$(basename "$f") is not built for $arch"
  done
  grep -qx 'prefix=/usr' "$x/$lib/pkgconfig/vemo.pc" || fail "vemo.pc does not name /usr"
  need=$(shlibs_depends "$arch" "$triplet" "$x/$lib" "$x/$lib/libvemo.so.$version")
  echo "  dpkg-shlibdeps for libvemo.so: $need"
  check_covers "$runtime" "$need"
  need=$(shlibs_depends "$arch" "$triplet" "$x/$lib" "$x"/usr/bin/*)
  echo "  dpkg-shlibdeps for the tools: $need"
  [ -n "$need" ] || fail "dpkg-shlibdeps found nothing for the tools"
  check_covers "$tools" "$need"
  for f in "$x"/usr/bin/*; do
    if readelf -d "$f" | grep -q 'NEEDED.*\[libvemo\.so\.1\]'; then
      [[ "$(dpkg-deb --field "$tools" Depends)" == *"libvemo1 (= $version-1)"* ]] ||
        fail "$(basename "$f") loads libvemo.so.1, but vemo-tools does not depend on this libvemo1"
    fi
  done
done

if [ $failures -ne 0 ]; then
  echo "package: $failures problems" >&2
  exit 1
fi
echo "=== packages in $out:"
ls -1 "$out"
