# Functions and lists that the other scripts of this folder share. They source this file.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build_packages=(cmake ninja-build g++ libcli11-dev libfmt-dev nlohmann-json3-dev libxxhash-dev libeigen3-dev)
test_packages=(g++-aarch64-linux-gnu qemu-user-static libgtest-dev clang-format pkg-config)
fuzz_packages=(clang libclang-rt-14-dev)
# The CMake file of libdnnl-dev needs the two OpenCL packages.
bench_packages=(libbenchmark-dev libopenblas-dev libdnnl-dev ocl-icd-opencl-dev opencl-headers)

# The preset that is optimised for this machine.
case $(uname -m) in
  aarch64 | arm64) native=arm ;;
  *) native=release ;;
esac

say() { printf '\n== %s\n' "$*"; }

# Installs the missing ones of the given Debian packages, and prints their names.
ensure_packages() {
  local package missing=() as_root=()
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "missing packages: ${missing[*]}; install them, or run as root" >&2; exit 1; }
    as_root=(sudo)
  fi
  say "installing missing packages: ${missing[*]}"
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Configures and builds one preset of CMakePresets.json into out/<preset>.
configure_and_build() {
  say "building preset $1"
  cmake --preset "$1" --log-level=WARNING >/dev/null
  cmake --build --preset "$1" -- --quiet
}
