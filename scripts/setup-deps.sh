#!/usr/bin/env bash
# Installs the Debian packages that building and testing KivCam need.
# Idempotent and quiet when everything is present. `--bench` adds the packages
# of the comparison benchmarks (OpenCV, Aravis's command-line tool), `--soak`
# gdb for the soak's stack dumps, `--docs` doxygen for the reference.
# iproute2 and procps build the network tests' private namespaces; Aravis's
# tools are the independent GigE Vision peers those tests run there. The
# Python binding needs Debian's interpreter with numpy, its tests pytest.
set -euo pipefail

pkgs=(cmake ninja-build g++ clang libclang-rt-14-dev pkg-config
      libgtest-dev libgmock-dev zlib1g-dev libminizip-dev libpugixml-dev
      libreadline-dev libpng-dev iproute2 procps aravis-tools
      python3 python3-numpy python3-pytest)
case "${1:-}" in
  --bench) pkgs+=(libbenchmark-dev libopencv-dev aravis-tools-cli) ;;
  --soak) pkgs+=(gdb) ;;         # the soak's watchdog dumps every thread's stack with it
  --docs) pkgs+=(doxygen) ;;     # the reference of `make docs`
esac

missing=()
for p in "${pkgs[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "setup-deps: installing ${missing[*]}"
SUDO=""
[[ $(id -u) -ne 0 ]] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
