# shellcheck shell=bash
# Functions of the scripts. Source it; do not run it.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(realpath -m "${MOX_BUILD_DIR:-$root/build}")

# Debian's versions of Boost conflict. Use the version whose headers are installed, otherwise the default one.
boost=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' 'libboost[0-9]*-dev' 2>/dev/null |
  sed -n 's/^installed libboost\([0-9.]*\)-dev$/\1/p' || true)

build_packages=(
  g++ cmake ninja-build pkgconf
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev nlohmann-json3-dev
  "libboost-filesystem$boost-dev" libgtest-dev libgmock-dev doxygen
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-tools
)
benchmark_packages=(libbenchmark-dev libspdlog-dev libgstreamermm-1.0-dev python3)

say() { printf '\n== %s\n' "$*"; }

as_root() {
  if [[ $EUID -eq 0 ]]; then
    "$@"
  else
    sudo "$@"
  fi
}

is_installed() { dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed; }

# Installs the Debian packages that are missing.
install_packages() {
  local missing=() package
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  [[ ${#missing[@]} -gt 0 ]] || return 0
  say "Installing ${missing[*]}"
  if [[ $EUID -ne 0 ]] && ! command -v sudo >/dev/null; then
    echo "Become root, or install these packages first: ${missing[*]}" >&2
    exit 1
  fi
  as_root apt-get -q update
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q install -y --no-remove --no-install-recommends "${missing[@]}" || {
    echo "Could not install ${missing[*]}." >&2
    exit 1
  }
}

# Builds targets of a preset, by default all, and installs the packages that they need.
build_preset() {
  local preset=$1
  shift
  local packages=("${build_packages[@]}")
  [[ $preset != clang ]] || packages+=(clang)
  install_packages "${packages[@]}"
  say "Building $preset in $build/$preset"
  cmake -S "$root" --preset "$preset" -B "$build/$preset" --log-level=WARNING
  cmake --build "$build/$preset" ${1+--target "$@"}
}
