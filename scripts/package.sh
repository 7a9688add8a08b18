#!/usr/bin/env bash
# Builds the Debian packages (Release, without tests and benchmarks) into build-deb/: the client
# library, the stand-in transport library, their development files and ksmem, and the debug
# symbols of the libraries and ksmem. Installs what building them needs first (the Build-Depends
# of debian/control), with sudo when not root.
#
# usage: scripts/package.sh
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=/dev/null
id=$(. /etc/os-release 2>/dev/null; echo "${ID:-}/${VERSION_ID:-}")
if [ "$id" != debian/12 ]; then
  # shellcheck source=/dev/null
  echo "package.sh: needs Debian 12, which the packages are built for; this is" \
       "$(. /etc/os-release 2>/dev/null; echo "${PRETTY_NAME:-an unknown system}")" >&2
  exit 1
fi

# The first package of each entry of Build-Depends; debhelper provides debhelper-compat.
build_depends=$(awk '/^Build-Depends:/ { on = 1; sub(/^Build-Depends:/, ""); print; next }
                     on && /^[ \t]/ { print; next } { on = 0 }' debian/control |
                tr ',' '\n' | awk 'NF { print $1 }' | sed 's/^debhelper-compat$/debhelper/')
# shellcheck disable=SC2086
scripts/install-deps.sh build-essential dpkg-dev $build_depends

out=build-deb
version=$(dpkg-parsechangelog -SVersion)
rm -rf --one-file-system "$out"
mkdir -p "$out/ksmemcppbinding-$version"
# dpkg-buildpackage writes the packages beside the source tree, so it builds a copy in $out.
tar --exclude=./.git --exclude='./build*' -cf - . | tar -xf - -C "$out/ksmemcppbinding-$version"
echo "Building the packages (log: $out/build.log)"
if ! (cd "$out/ksmemcppbinding-$version" &&
      DEB_BUILD_OPTIONS="parallel=2 ${DEB_BUILD_OPTIONS:-}" dpkg-buildpackage -b -us -uc) \
    >"$out/build.log" 2>&1; then
  tail -n 40 "$out/build.log" >&2
  echo "package.sh: the package build failed; the whole log is in $out/build.log" >&2
  exit 1
fi

# dh_shlibdeps fails on a library without dependency information; this checks the result
# itself: every library that a program or library of a package loads comes from a package that
# its Depends names, one of ours or one installed here.
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
contents=$(for deb in "$out"/*.deb; do
             dpkg-deb -c "$deb" | awk -v p="$(dpkg-deb -f "$deb" Package)" '{ print p ": " $6 }'
           done)
unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
for deb in "$out"/*.deb; do
  package=$(dpkg-deb -f "$deb" Package)
  [[ $package != *-dbgsym ]] || continue
  depends=" $(dpkg-deb -f "$deb" Depends | sed 's/([^)]*)//g; s/[,|]/ /g') "
  dpkg-deb -x "$deb" "$unpacked/$package"
  while IFS= read -r -d '' file; do
    for soname in $(readelf -d "$file" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
      # Lines "PACKAGE[:ARCH]: PATH"; the first whose PATH is the library's.
      provider=$( { echo "$contents"; dpkg -S "$multiarch/$soname" 2>/dev/null || true; } |
                  awk -F': ' -v s="/$multiarch/$soname" '!n && substr($2,
                    length($2) - length(s) + 1) == s { n = 1; sub(/:.*/, "", $1); print $1 }')
      if [[ -z $provider || $depends != *" $provider "* ]]; then
        echo "package.sh: $package: ${file#"$unpacked/$package"} loads $soname, but Depends" \
             "names no package that has it (${provider:-none here})" >&2
        exit 1
      fi
    done
  done < <(find "$unpacked/$package" -type f -print0)
done

for deb in "$out"/*.deb; do echo "$deb ($(stat -c %s "$deb") bytes)"; done
