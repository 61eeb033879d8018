#!/usr/bin/env bash
# Builds vxtools3 and runs it. Run as root on a fresh Debian 12 machine, it first installs
# whatever it needs from Debian's packages.
#
#   ./build.sh demo      build, then run `vxtool demo` on built-in sample data (files in build/demo)
#   ./build.sh test      build and run all tests (the default preset)
#   ./build.sh asan      build and run all tests under AddressSanitizer + UBSan (clang)
#   ./build.sh tsan      build and run all tests under ThreadSanitizer (clang)
#   ./build.sh fuzz [S]  build the fuzz targets and run each for S seconds (default 20)
#   ./build.sh bench     build and run the benchmarks against their peers
set -euo pipefail
cd "$(dirname "$0")"

BUILD_PACKAGES="cmake ninja-build g++ pkg-config libpng-dev libjpeg62-turbo-dev libtiff-dev libstb-dev"
TEST_PACKAGES="libgtest-dev libgmock-dev sox libxml2-utils imagemagick netpbm"
CLANG_PACKAGES="clang-14 libclang-rt-14-dev"
BENCH_PACKAGES="libbenchmark-dev libboost-dev libabsl-dev libopencv-imgproc-dev"

# Installs the named Debian packages that are missing (as root), or names them and stops.
need() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null; then
    echo "build.sh: installing ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  else
    echo "build.sh: missing packages: ${missing[*]}" >&2
    echo "  install them with: sudo apt-get install ${missing[*]}" >&2
    exit 1
  fi
}

# clang is called `clang` by the presets; Debian's clang-14 package names it clang-14 only.
clang_on_path() {
  command -v clang >/dev/null && command -v clang++ >/dev/null && return 0
  mkdir -p build/clang-bin
  ln -sf "$(command -v clang-14)" build/clang-bin/clang
  ln -sf "$(command -v clang++-14)" build/clang-bin/clang++
  export PATH="$PWD/build/clang-bin:$PATH"
}

case "${1:-}" in
  demo)
    need $BUILD_PACKAGES $TEST_PACKAGES
    cmake --preset default >/dev/null
    cmake --build --preset default --target vxtool
    # The demo's files go to build/demo unless other options are given.
    if [ $# -gt 1 ]; then
      ./build/default/tools/vxtool demo "${@:2}"
    else
      ./build/default/tools/vxtool demo --out build/demo
    fi
    ;;
  test)
    need $BUILD_PACKAGES $TEST_PACKAGES
    cmake --workflow --preset default
    ;;
  asan|tsan)
    need $BUILD_PACKAGES $TEST_PACKAGES $CLANG_PACKAGES
    clang_on_path
    cmake --workflow --preset "$1"
    ;;
  fuzz)
    need $BUILD_PACKAGES $CLANG_PACKAGES
    clang_on_path
    cmake --preset fuzz >/dev/null
    cmake --build --preset fuzz --target vx_fuzzers
    seconds="${2:-20}"
    for target in build/fuzz/fuzz/fuzz_*; do
      [ -x "$target" ] || continue
      name=$(basename "$target")
      corpus="build/fuzz/corpus/$name"
      mkdir -p "$corpus"
      seeds="fuzz/corpus/${name#fuzz_}"
      echo "== $name (${seconds}s)"
      log="build/fuzz/$name.log"
      # A finding prints the sanitizer's report and the input; a clean run its last lines.
      if ! "$target" -max_total_time="$seconds" -print_final_stats=0 "$corpus" $( [ -d "$seeds" ] && echo "$seeds" ) >"$log" 2>&1; then
        grep -v '^#[0-9]' "$log" | tail -n 40
        exit 1
      fi
      tail -n 3 "$log"
    done
    ;;
  bench)
    need $BUILD_PACKAGES $TEST_PACKAGES $BENCH_PACKAGES
    cmake --preset default -DVX_BUILD_BENCH=ON >/dev/null
    cmake --build --preset default
    for b in build/default/bench/*_bench; do
      [ -x "$b" ] || continue
      echo "== $(basename "$b")"
      "$b" --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
        --benchmark_report_aggregates_only=true "${@:2}"
    done
    ;;
  *)
    sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'
    exit 2
    ;;
esac
