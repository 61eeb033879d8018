#!/usr/bin/env bash
# Runs the README's "Using the library" section as a new user would, from a fresh build
# folder: builds what `./build.sh demo` builds, installs with the README's command, then
# builds a C and a C++ program against the installed package with the README's CMake lines
# and pkg-config commands, shared and static, and runs them.
set -euo pipefail
source_dir=$1
consumer=$2   # consumer.c and consumer.cpp
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

section() { sed -n '/^## Using the library$/,/^## [^#]/p' "$source_dir/README.md"; }
# The lines of the section's code blocks in language $1.
code() { section | awk -v lang="$1" '/^```/ { inside = !inside && $0 == "```" lang; next } inside'; }
fail() { echo "$1"; exit 1; }

echo "-- a fresh build of what ./build.sh demo builds"
target=$(sed -n '/^  demo)/,/;;/p' "$source_dir/build.sh" | grep -o -- '--target [A-Za-z0-9_]*' | cut -d' ' -f2)
[ -n "$target" ] || fail "no build target found in build.sh demo"
# Unoptimised: the test is about what gets built and installed, not how fast it runs.
cmake -S "$source_dir" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE= -DVX_BUILD_TESTS=OFF -DVX_BUILD_BENCH=OFF >/dev/null
cmake --build "$work/build" --target "$target" >/dev/null

echo "-- the README's install command"
install=$(code sh | grep '^cmake --install build/default ')
[ -n "$install" ] || fail "the README shows no 'cmake --install build/default' line"
eval "$(echo "$install" | sed "s|build/default|$work/build|; s|/opt/vxtools3|$work/prefix|")" >/dev/null
libdir=$(dirname "$(find "$work/prefix" -name 'libvxtools3.so.3' | head -n 1)")
[ -f "$libdir/libvxtools3.a" ] || fail "libvxtools3.a was not installed"
soname=$(objdump -p "$libdir/libvxtools3.so.3" | awk '/SONAME/ {print $2}')
[ "$soname" = "libvxtools3.so.3" ] || fail "unexpected SONAME '$soname'"

# Runs a program and checks which way it got the library.
check_program() {  # program shared|static
  if objdump -p "$1" | grep -q 'NEEDED.*libvxtools3'; then linked=shared; else linked=static; fi
  [ "$linked" = "$2" ] || fail "$1 links the library $linked, not $2"
  LD_LIBRARY_PATH="$libdir" "$1" | grep -q 'consumer ok' || fail "$1 did not run"
  echo "${1#$work/}: $2, runs"
}

for lang in C CXX; do
  ext=$([ $lang = C ] && echo c || echo cpp)
  echo "-- find_package(vxtools3), a $lang project"
  project="$work/cmake-$lang"
  mkdir -p "$project"
  cp "$consumer/consumer.$ext" "$project/app.$ext"
  { echo "cmake_minimum_required(VERSION 3.25)"
    echo "project(consumer LANGUAGES $lang)"
    echo "add_executable(my_app app.$ext)"
    echo "add_executable(my_static_app app.$ext)"
    code cmake; } > "$project/CMakeLists.txt"
  cmake -S "$project" -B "$project/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
  cmake --build "$project/build" >/dev/null
  check_program "$project/build/my_app" shared
  check_program "$project/build/my_static_app" static

  echo "-- pkg-config vxtools3, $lang"
  dir="$work/pc-$lang"
  mkdir -p "$dir"
  cp "$consumer/consumer.$ext" "$dir/app.$ext"
  code sh | grep -E '^cc app\.c ' | while read -r line; do
    [ $lang = CXX ] && line=${line/cc app.c/c++ app.cpp}
    (cd "$dir" && PKG_CONFIG_PATH="$libdir/pkgconfig" eval "$line")
  done
  check_program "$dir/app" shared
  check_program "$dir/app_static" static
done

# Only the documented interface is exported.
internal=$(nm -D --defined-only "$libdir/libvxtools3.so.3" | awk '{print $3}' | grep -E '^_Z' | head -n 5 || true)
[ -z "$internal" ] || fail "C++ symbols leak from the shared library: $internal"
# The installed vxtool runs its demo, example modules included.
"$work/prefix/bin/vxtool" demo --out "$work/demo" > "$work/demo.log" 2>&1 ||
  { tail -n 20 "$work/demo.log"; fail "the installed vxtool demo failed"; }
echo "installed vxtool demo passed"
# The module scanner is installed and found; the tests' failure fixtures are not installed, so
# a scan of the installed modules has nothing to refuse.
[ -x "$work/prefix/libexec/vxtools3/vxmodscan" ] || fail "the module scanner was not installed"
[ -z "$(find "$work/prefix" -name 'fixture_*')" ] || fail "test fixtures were installed"
mkdir "$work/plugins-db"
"$work/prefix/bin/vxtool" plugins scan "$libdir/vxtools3/plugins" --db "$work/plugins-db" |
  grep -q '^scan complete: 7 servers from 4 modules; database' || fail "the installed plug-ins did not scan cleanly"
echo "installed plug-ins scanned"
echo "install test passed"
