#!/usr/bin/env bash
# Installs the Debian packages the project needs (only those missing) and configures and
# builds one build tree.
#   scripts/setup.sh [default|debug|asan|tsan|clang|fuzz]   (build tree: build, build-debug, ...)
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  cmake ninja-build g++ clang libclang-rt-14-dev llvm-14 ccache binutils clang-format clang-tidy
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  libpng-dev libtiff-dev libopenexr-dev
  libssl-dev
  libembree-dev
  libcpp-httplib-dev
  nodejs chromium
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# npm comes with some builds of nodejs and as its own package with Debian's.
if ! command -v npm > /dev/null; then
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends npm
fi
# The browser test's driver, exactly as locked; again only when the lock changed.
if ! cmp -s tests/browser/package-lock.json tests/browser/node_modules/.kelvo-installed-lock; then
  (cd tests/browser && npm ci --no-audit --no-fund --loglevel=error &&
     cp package-lock.json node_modules/.kelvo-installed-lock)
fi

preset="${1:-default}"
case "$preset" in
  default|debug|asan|tsan|clang|fuzz) ;;
  *) echo "setup: unknown build '$preset'" >&2; exit 2 ;;
esac
export CCACHE_DIR="${CCACHE_DIR:-$HOME/.cache/ccache}"

# The build table (folders, build types, options) lives in CMakePresets.json.
cmake --preset "$preset" > /dev/null
cmake --build --preset "$preset"
