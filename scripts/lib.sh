# shellcheck shell=bash
# What the scripts share. Sourced by them, not run.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(realpath -m "${MOX_BUILD_DIR:-$root/build}")

build_packages=(
  g++ cmake ninja-build pkg-config
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev nlohmann-json3-dev
  libboost-filesystem1.81-dev libboost-system1.81-dev libgtest-dev libgmock-dev doxygen
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

# Installs those of the Debian packages that are missing.
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
  # Nothing of the user's is removed. Debian's older Boost is the one that would have to go.
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q install -y --no-remove --no-install-recommends "${missing[@]}" || {
    echo "Could not install ${missing[*]}." >&2
    if is_installed libboost1.74-dev; then
      echo "Boost 1.74 and 1.81 cannot both be installed: remove libboost1.74-dev, then try again." >&2
    fi
    exit 1
  }
}

# Builds the targets (all by default) of a preset, installing what that needs.
build_preset() {
  local preset=$1
  shift
  local packages=("${build_packages[@]}")
  [[ $preset != clang ]] || packages+=(clang-14)
  install_packages "${packages[@]}"
  say "Building $preset in $build/$preset"
  cmake -S "$root" --preset "$preset" -B "$build/$preset" --log-level=WARNING
  cmake --build "$build/$preset" ${1+--target "$@"}
}
