#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, then builds and runs an outside C program
# against it: with CMake (shared and static targets) and with pkg-config.
set -euo pipefail
build=$1
consumer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'libvxtools3.so.3' | head -n 1)")
test -n "$libdir" || { echo "libvxtools3.so.3 was not installed"; exit 1; }
soname=$(objdump -p "$libdir/libvxtools3.so.3" | awk '/SONAME/ {print $2}')
[ "$soname" = "libvxtools3.so.3" ] || { echo "unexpected SONAME '$soname'"; exit 1; }

echo "-- find_package(vxtools3)"
cmake -S "$consumer" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
"$work/cmake/consumer"
"$work/cmake/consumer_static"

echo "-- pkg-config vxtools3"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc -std=c11 -Wall -Wextra -Werror "$consumer/consumer.c" $(pkg-config --cflags --libs vxtools3) -o "$work/consumer-pc"
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc"
cc -std=c11 -Wall -Wextra -Werror "$consumer/consumer.c" -static-libgcc \
  $(pkg-config --cflags vxtools3) "$libdir/libvxtools3.a" $(pkg-config --static --libs-only-other --libs-only-L vxtools3) \
  -lstdc++ -lm -lpthread -ldl -o "$work/consumer-static-pc"
"$work/consumer-static-pc"

# Only the documented interface is exported.
internal=$(nm -D --defined-only "$libdir/libvxtools3.so.3" | awk '{print $3}' | grep -E '^_Z' | head -n 5 || true)
[ -z "$internal" ] || { echo "C++ symbols leak from the shared library: $internal"; exit 1; }
# The installed vxtool runs its demo, example modules included.
"$work/prefix/bin/vxtool" demo --out "$work/demo" > "$work/demo.log" 2>&1 ||
  { tail -n 20 "$work/demo.log"; echo "the installed vxtool demo failed"; exit 1; }
echo "installed vxtool demo passed"
echo "install test passed"
