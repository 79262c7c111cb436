# Sourced by the README example tests. In a sanitizer build the library needs
# the sanitizer runtime loaded first, so the examples are built with it too.
if [[ -n ${KIVCAM_SANITIZE:-} ]]; then
  mkdir -p "$work/shim"
  printf '#!/bin/sh\nexec /usr/bin/cc -fsanitize=%s "$@"\n' "$KIVCAM_SANITIZE" >"$work/shim/cc"
  chmod +x "$work/shim/cc"
  export PATH="$work/shim:$PATH"
fi
