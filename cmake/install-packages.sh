#!/usr/bin/env bash
# Installs the Debian packages that a job needs and this machine lacks. Says and does nothing when
# all of them are there.
#
#   cmake/install-packages.sh <job>...
#
# linux     build and tests on Linux
# python    what the tests of the Python package use; it needs nothing itself
# windows   cross build, and Wine to run what it makes
# lint      clang-format and clang-tidy
# fuzz      clang with libFuzzer and the sanitizers' runtime
# bench     what the benchmarks compare the library with
# coverage  the report of covered lines and branches
# memcheck  valgrind
# docs      Doxygen and its theme, for the manual as a site; codespell, for the spelling
# packages  what makes, looks into and judges Debian packages
# pictures  what draws the manual's pictures from text
set -euo pipefail

# What the tools and examples are built with, on and for every platform: headers, and what makes
# the contract from the library's own.
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
      echo "install-packages.sh: no packages are listed for \"$1\"" >&2
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
  echo "install-packages.sh: this is no Debian system; install what stands for: ${wanted[*]}" >&2
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
# A fresh machine has no package lists; sudo does not pass the environment on by itself.
if ! "${asRoot[@]}" apt-get -qq update >"$log" 2>&1 ||
  ! "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -qq install -y --no-install-recommends "${missing[@]}" >>"$log" 2>&1; then
  tail -n 20 "$log" >&2
  echo "install-packages.sh: could not install ${missing[*]}" >&2
  exit 1
fi
