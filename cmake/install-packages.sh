#!/usr/bin/env bash
# Installs missing Debian packages for jobs. If all are installed, it does and prints nothing.
#
#   cmake/install-packages.sh <job>...
#
# linux     build and tests on Linux
# python    tests of the Python package, which itself needs nothing
# windows   cross build, and Wine to run its programs
# lint      clang-format and clang-tidy
# fuzz      clang with libFuzzer and the sanitizers' runtime
# bench     libraries with which the benchmarks compare this one
# coverage  the report of covered lines and branches
# memcheck  valgrind
# docs      Doxygen and its theme, for the manual as a site; codespell, for the spelling
# packages  tools that make, read and check Debian packages
# pictures  tools that draw the manual's pictures from text
set -euo pipefail

# For the tools and examples, on and for every platform: headers, and Python, which makes the contract
# from the library's headers.
tools=(libcli11-dev libfmt-dev libutfcpp-dev nlohmann-json3-dev python3)

packagesFor() {
  case $1 in
    linux)
      echo g++ googletest libbenchmark-dev libhiredis-dev pkg-config redis-server valgrind \
        "${tools[@]}"
      ;;
    python) echo python3 python3-pip python3-matplotlib ;;
    windows)
      echo clang llvm lld g++-mingw-w64-x86-64-posix googletest pkg-config wine wine64 \
        "${tools[@]}"
      ;;
    lint) echo clang llvm lld clang-format clang-tidy "${tools[@]}" ;;
    fuzz) echo clang llvm googletest libclang-rt-14-dev "${tools[@]}" ;;
    bench)
      echo g++ pkg-config libbenchmark-dev libmimalloc-dev libboost-dev libboost-serialization-dev \
        libapr1-dev libabsl-dev libflatbuffers-dev flatbuffers-compiler capnproto libcapnp-dev \
        protobuf-compiler libprotobuf-dev rapidjson-dev python3 python3-matplotlib
      ;;
    coverage) echo gcovr ;;
    memcheck) echo valgrind ;;
    docs) echo doxygen doxygen-awesome-css codespell python3 ;;
    packages) echo dpkg-dev file lintian python3 ;;
    pictures) echo graphviz python3 ;;
    *)
      echo "install-packages.sh: unknown job \"$1\": use linux, python, windows, lint, fuzz, bench," \
        "coverage, memcheck, docs, packages or pictures" >&2
      exit 2
      ;;
  esac
}

wanted=(cmake ninja-build ccache)
for job in "$@"; do
  list=$(packagesFor "$job")
  read -ra packages <<<"$list"
  wanted+=("${packages[@]}")
done

isInstalled() {
  [[ $(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

if ! command -v dpkg-query >/dev/null; then
  echo "install-packages.sh: this is not a Debian system; install the equivalents of these packages:" \
    "${wanted[*]}" >&2
  exit 1
fi
missing=()
for package in $(printf '%s\n' "${wanted[@]}" | sort -u); do
  isInstalled "$package" || missing+=("$package")
done
((${#missing[@]})) || exit 0

asRoot=()
if ((EUID != 0)); then
  if ! command -v sudo >/dev/null; then
    echo "install-packages.sh: needs root or sudo to install: ${missing[*]}" >&2
    exit 1
  fi
  asRoot=(sudo)
fi

echo "== installing ${missing[*]}" >&2
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# A new machine has no package lists. sudo does not pass the environment on, so env does.
if ! "${asRoot[@]}" apt-get -qq update >"$log" 2>&1 ||
  ! "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -qq install -y --no-install-recommends "${missing[@]}" >>"$log" 2>&1; then
  tail -n 20 "$log" >&2
  echo "install-packages.sh: apt-get could not install ${missing[*]}" >&2
  exit 1
fi
