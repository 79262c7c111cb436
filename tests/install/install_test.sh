#!/usr/bin/env bash
# `make install` into a temporary prefix, then what a user does with it: the
# layout the guide describes, the getting-started program built against the
# prefix with pkg-config and with find_package(KivCam), a C++ host of the
# node-map engine, run on the virtual cameras (their folder first on the
# loader path) and, without that, on the network producer installed beside
# the library (an emulated camera on the loopback of a private network
# namespace: nothing leaves the machine).
# Arguments: source folder, build folder, the build's sanitizers (or empty).
set -euo pipefail
src=$1 build=$2 sanitize=${3:-}
work=$(mktemp -d)
export KIVCAM_IPC_NAMESPACE="_install$$"
trap 'rm -rf "$work"; rm -f /dev/shm/*"$KIVCAM_IPC_NAMESPACE"' EXIT
fail() { echo "FAIL: $*"; exit 1; }
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

# ---- layout --------------------------------------------------------------------
for f in lib/libkivcam.so lib/libkivcamreader.so lib/KivGigEGenTL.cti \
         lib/kivcam/virtual/KivGigEGenTL.cti lib/kivcam/virtual/KivUSBGenTL.cti \
         bin/kivcam bin/kivcam-monitor bin/kivcam-view bin/kivgenapi-dump bin/kivgev-sim \
         include/kivgenapi/KivGenApi.h include/kivgentl/gentl.h include/kivsim/kivsim.h \
         lib/cmake/KivCam/KivCamConfig.cmake lib/cmake/KivCam/KivCamConfigVersion.cmake \
         lib/pkgconfig/kivcam.pc lib/pkgconfig/kivcamreader.pc; do
  [[ -e "$prefix/$f" ]] || fail "$f is not installed"
done
for h in "$src"/include/kivcam/*.h; do
  cmp -s "$h" "$prefix/include/kivcam/${h##*/}" || fail "include/kivcam/${h##*/} is not installed as it is"
done
# The network producer beside the library, the virtual ones (which export the
# simulation's control interface) in their own folder.
exports_sim() { nm -D --defined-only "$1" | grep -q ' kivsim_plug$'; }
exports_sim "$prefix/lib/KivGigEGenTL.cti" && fail "lib/KivGigEGenTL.cti is the virtual producer"
exports_sim "$prefix/lib/kivcam/virtual/KivGigEGenTL.cti" || fail "lib/kivcam/virtual/KivGigEGenTL.cti is not the virtual producer"
exports_sim "$prefix/lib/kivcam/virtual/KivUSBGenTL.cti" || fail "lib/kivcam/virtual/KivUSBGenTL.cti is not the virtual producer"
[[ -z $(find "$prefix" -name '*.a' -o -name '*.o') ]] || fail "static archives or objects installed"

# ---- the getting-started program, both ways ------------------------------------
guide=$src/docs/getting-started.md
section=$(sed -n '/^## A first camera in C/,/^## A first camera in Python/p' "$guide")
awk '/^```c$/ {f = 1; next} /^```$/ {if (f) exit} f' <<<"$section" >"$work/first.c"
awk '/^```cmake$/ {f = 1; next} /^```$/ {if (f) exit} f' <<<"$section" >"$work/CMakeLists.txt"
[[ -s "$work/first.c" && -s "$work/CMakeLists.txt" ]] || fail "no C program or CMake project in $guide"
cp "$src/tests/install/features.cpp" "$work/"
cat >>"$work/CMakeLists.txt" <<'CMAKE'
enable_language(CXX)
add_executable(features features.cpp)
set_target_properties(features PROPERTIES CXX_STANDARD 17)
target_link_libraries(features PRIVATE KivCam::kivcam)
CMAKE
flags=()
[[ -n "$sanitize" ]] && flags=("-fsanitize=$sanitize")

cd "$work"
PKG_CONFIG_PATH=$prefix/lib/pkgconfig
export PKG_CONFIG_PATH
cc -std=c11 -Wall -Wextra -Werror "${flags[@]}" first.c $(pkg-config --cflags --libs kivcam) \
   -Wl,-rpath,"$prefix/lib" -o first-pkgconfig
[[ $(pkg-config --modversion kivcam) == $(sed -n 's/^project(KivCam VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt") ]] ||
  fail "kivcam.pc has the wrong version"
cmake -S . -B cm -G Ninja -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="${flags[*]}" -DCMAKE_CXX_FLAGS="${flags[*]}" \
      -DCMAKE_BUILD_RPATH="$prefix/lib" >cm.log 2>&1 || { cat cm.log; fail "configuring against the prefix"; }
cmake --build cm >>cm.log 2>&1 || { cat cm.log; fail "building against the prefix"; }
for p in first-pkgconfig cm/first cm/features; do
  readelf -d "$p" | grep -q 'NEEDED.*\[libkivcam\.so\.[0-9]*\]' || fail "$p does not need the library by its soname"
done

virtual=$prefix/lib/kivcam/virtual
for p in ./first-pkgconfig cm/first; do
  out=$(LD_LIBRARY_PATH=$virtual "$p") || { echo "$out"; fail "$p on the virtual cameras"; }
  echo "$p: $out"
  grep -qx '3 cameras' <<<"$out" || fail "$p does not see the three virtual cameras"
  grep -q '^image 640x480, pixel format 0x01080001, 32-bit bitmap' <<<"$out" || fail "$p grabbed no image"
done
out=$(LD_LIBRARY_PATH=$virtual cm/features) || { echo "$out"; fail "features"; }
[[ $out == "Width 320 PixelFormat Mono8" ]] || fail "features printed '$out'"
out=$(LD_LIBRARY_PATH=$virtual "$prefix/bin/kivcam" list)
[[ $(grep -c KivSim <<<"$out") == 3 ]] || { echo "$out"; fail "the installed kivcam does not list the virtual cameras"; }

# ---- the Python package ----------------------------------------------------------
pydir=$(cd "$prefix" && ls -d lib/python3*/dist-packages 2>/dev/null || true)
if [[ -d "$src/python/kivcam" ]]; then
  [[ -f "$prefix/$pydir/kivcam/__init__.py" ]] || fail "the Python package is not installed"
  # Where make install and the package put it, Debian's python3 looks without help.
  for root in /usr/local /usr; do
    /usr/bin/python3 -c "import sys; sys.exit(0 if '$root/$pydir' in sys.path else 1)" ||
      fail "$root/$pydir is not on python3's path"
  done
  if [[ -n "$sanitize" ]]; then
    echo "a sanitizer build's library cannot be loaded into a plain interpreter: the package's load is not checked"
  else
    out=$(cd / && LD_LIBRARY_PATH=$virtual:$prefix/lib PYTHONPATH=$prefix/$pydir /usr/bin/python3 -c \
          'import kivcam; print(len(kivcam.cameras()))') || fail "the installed Python package does not load"
    [[ $out == 3 ]] || fail "the installed Python package lists $out cameras"
  fi
else
  echo "python/kivcam does not exist yet: the Python package's installation is not checked"
fi

# ---- the network producer is the installed default --------------------------------
if ! unshare --net true 2>/dev/null; then
  echo "no network namespace of its own (needs root): the network producer's part is skipped"
  exit 0
fi
export prefix
unshare --net bash -euo pipefail -c '
  [[ $(ip -o link show | cut -d: -f2 | tr -d " ") == lo ]] || { echo "the new network namespace is not empty"; exit 1; }
  ip link set lo up
  "$prefix/bin/kivgev-sim" --camera 127.0.0.2 >sim.log 2>&1 &
  sim=$!
  trap "kill $sim 2>/dev/null; wait $sim 2>/dev/null || true" EXIT
  for _ in $(seq 200); do grep -q "kivgev-sim: ready" sim.log && break; kill -0 $sim || break; sleep 0.05; done
  grep -q "kivgev-sim: ready" sim.log || { cat sim.log; exit 1; }
  KIVGEV_INTERFACES=lo cm/first
' >net.log 2>&1 || { cat net.log; fail "the installed default on the network"; }
echo "network: $(cat net.log)"
grep -qx '1 cameras' net.log || fail "the installed default does not see the emulated camera alone"
grep -q 'KivSim-GC1920M' net.log || fail "the installed default does not list the emulated camera"
grep -q '^image 640x480, pixel format 0x01080001' net.log || fail "no image from the emulated camera"
