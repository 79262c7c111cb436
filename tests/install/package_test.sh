#!/usr/bin/env bash
# `cpack` builds a Debian package that installs cleanly: its control fields
# and contents, unpacked by dpkg into a private root with a database of its
# own (never the system's), and the tools run from there on the virtual
# cameras. Maintainer scripts are not run (dpkg would chroot into the root);
# they are checked to do nothing but refresh the loader's cache.
# Arguments: source folder, build folder.
set -euo pipefail
src=$1 build=$2
work=$(mktemp -d)
export KIVCAM_IPC_NAMESPACE="_package$$"
trap 'rm -rf "$work"; rm -f /dev/shm/*"$KIVCAM_IPC_NAMESPACE"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; fail "cpack"; }
grep -qi warning "$work/cpack.log" && { cat "$work/cpack.log"; fail "cpack warned"; }
version=$(sed -n 's/^project(KivCam VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt")
deb=$work/out/kivcam_${version}_amd64.deb
[[ -f "$deb" ]] || { ls "$work/out"; fail "no kivcam_${version}_amd64.deb"; }

# ---- control -------------------------------------------------------------------
field() { dpkg-deb --field "$deb" "$1"; }
[[ $(field Package) == kivcam && $(field Version) == "$version" && $(field Architecture) == amd64 ]] ||
  fail "package, version or architecture: $(field Package) $(field Version) $(field Architecture)"
depends=$(field Depends)
for lib in libc6 libstdc++6 libgomp1 zlib1g libminizip1 libpugixml1v5; do
  grep -q "\b$lib\b" <<<"$depends" || fail "Depends lacks $lib: $depends"
done
dpkg-deb --ctrl-tarfile "$deb" | tar -x -C "$work" -f - 
grep -qx "libkivcam 1 kivcam (>= $version)" "$work/shlibs" || fail "no shlibs entry for libkivcam"
for s in preinst prerm; do [[ ! -e "$work/$s" ]] || fail "the package has a $s script"; done
for s in postinst postrm; do
  [[ ! -e "$work/$s" ]] && continue
  body=$(grep -v -e '^#!' -e '^\s*$' -e '^set -e$' -e '^if \[ "$1" = "\(configure\|remove\)" \]; then$' -e '^fi$' "$work/$s" |
         tr -d '\t ')
  [[ $body == ldconfig ]] || { cat "$work/$s"; fail "$s does more than run ldconfig"; }
done

# ---- contents: all under /usr, owned by root, the same layout as make install ----
listing=$(dpkg-deb -c "$deb")
awk '{print $6}' <<<"$listing" | grep -v '^\./usr/' && fail "files outside /usr"
awk '{print $2}' <<<"$listing" | grep -vx root/root && fail "files not owned by root"
for f in usr/lib/libkivcam.so.1 usr/lib/libkivcam.so usr/lib/KivGigEGenTL.cti usr/lib/kivcam/virtual/KivUSBGenTL.cti \
         usr/bin/kivcam usr/include/kivcam/kivcam.h usr/lib/cmake/KivCam/KivCamConfig.cmake \
         usr/lib/pkgconfig/kivcam.pc usr/share/doc/kivcam/README.md; do
  grep -q " \./$f\( ->.*\)\?$" <<<"$listing" || fail "$f is not in the package"
done

# ---- unpacked by dpkg into a private root ------------------------------------------
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
dpkg --root="$root" --force-depends --unpack "$deb" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail "dpkg --unpack"; }
dpkg --root="$root" -s kivcam | grep -qx 'Status: install ok unpacked' || fail "dpkg does not know the package"
[[ $(dpkg --root="$root" -S /usr/lib/libkivcam.so.1) == "kivcam: /usr/lib/libkivcam.so.1" ]] || fail "dpkg -S"
out=$(LD_LIBRARY_PATH=$root/usr/lib/kivcam/virtual "$root/usr/bin/kivcam" list) || { echo "$out"; fail "kivcam list"; }
[[ $(grep -c KivSim <<<"$out") == 3 ]] || { echo "$out"; fail "the packaged kivcam does not list the virtual cameras"; }
# The packaged programs find the packaged library, never a build tree's.
for f in "$root"/usr/bin/* "$root"/usr/lib/libkivcam.so.1; do
  runpath=$(readelf -d "$f" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
  [[ -z $runpath || $runpath == '$ORIGIN/../lib' || $runpath == '$ORIGIN' ]] ||
    fail "${f#$root} has the run path $runpath"
done
echo "$deb: $(field Depends)"
