#!/usr/bin/env bash
# Checks the Debian packages that scripts/package.sh wrote to DIR: lintian reports no error and
# no warning; and in a clean Debian 12 root (debootstrap minbase, from the mirror that this
# machine's apt uses) the runtime, tool and Python packages install, `ksmem demo` and the Python
# examples run, and removing them leaves nothing behind;
# then the development package installs with a compiler, and the examples build through
# find_package and through pkg-config and run. When apt's sources name no such mirror, or it
# cannot be reached, the steps in the clean root are skipped with a message saying so.
# usage: package_test.sh DIR
set -euo pipefail
dir=$(realpath "$1")
cd "$(dirname "$0")/../.."
scripts/install-deps.sh lintian debootstrap
runtime=(libksmemcppbinding1 libksmembinding1 ksmem python3-ksmem)
work=$(mktemp -d)
root=$dir/root
cleanup() {
  if [ -d "$root" ]; then
    awk -v r="$root/" 'index($2, r) == 1 { print $2 }' /proc/mounts | sort -r | xargs -r umount
    rm -rf --one-file-system "$root"
  fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "--- lintian"
{ lintian --fail-on error,warning --display-info "$dir"/*.deb 2>&1; } |
  sed '/running with root privileges/d'
echo "no errors, no warnings"

echo "--- install into a clean Debian 12 root"
# The mirror of Debian 12 that this machine's apt uses.
mirror=$(apt-cache policy | awk '$3 == "bookworm/main" { print $2; exit }')
if [ -z "$mirror" ]; then
  echo "skipped: this machine's apt sources name no Debian 12 (bookworm) mirror"
  exit 0
fi
mirror=${mirror%/}
if ! wget -q --spider --tries=1 --timeout=20 "$mirror/dists/bookworm/Release"; then
  echo "skipped: the Debian mirror $mirror (from this machine's apt sources) cannot be reached"
  exit 0
fi
started=$SECONDS
debootstrap --variant=minbase bookworm "$root" "$mirror" >"$work/debootstrap.log" 2>&1 ||
  { tail -n 20 "$work/debootstrap.log"; exit 1; }
echo "debootstrap --variant=minbase bookworm from $mirror: $((SECONDS - started)) s"

in_root() { chroot "$root" env DEBIAN_FRONTEND=noninteractive "$@"; }
apt_in_root() { in_root apt-get -o Dpkg::Use-Pty=0 -y -q "$@" >>"$work/apt.log" 2>&1; }
# shellcheck disable=SC2016
packages() { in_root dpkg-query -W -f '${db:Status-Abbrev} ${Package} ${Installed-Size}\n'; }
# Every path but those that apt, dpkg and the kernel keep changing.
files() {
  (cd "$root" && find . -xdev \( -path ./proc -o -path ./sys -o -path ./dev -o -path ./run \
     -o -path ./tmp -o -path ./var/log -o -path ./var/cache -o -path ./var/lib/apt \
     -o -path ./var/lib/dpkg \) -prune -o -print | sort)
}
packages >"$work/packages-before"
files >"$work/files-before"

mkdir "$root/tmp/debs"
debs=()
for package in "${runtime[@]}"; do
  cp "$dir/${package}_"*.deb "$root/tmp/debs/$package.deb"
  debs+=("/tmp/debs/$package.deb")
done
# Without recommended packages: apt itself recommends ca-certificates, so the one that libcurl
# (through Xerces-C) recommends would stay behind after the removal, as apt's.
apt_in_root install --no-install-recommends "${debs[@]}" || { cat "$work/apt.log"; exit 1; }
packages >"$work/packages-installed"
awk 'NR == FNR { before[$2] = 1; next } !($2 in before) { n++; kib += $3 }
     END { printf "installed %d packages, %.1f MB, with what they depend on\n", n, kib / 1024 }' \
  "$work/packages-before" "$work/packages-installed"

if ! in_root ksmem demo >"$work/demo.log" 2>&1 || ! grep -q 'bob unregisters' "$work/demo.log"; then
  echo "ksmem demo failed in the clean root:"; cat "$work/demo.log"; exit 1
fi
echo "ksmem demo ran: $(tail -n1 "$work/demo.log" | sed 's/^ *//')"

# Debian's python3 finds the module where python3-ksmem put it, and the module its library.
cp -r examples tests/install/build_examples.sh "$root/tmp/"
for example in examples/*/*.py; do
  in_root python3 "/tmp/$example" >"$work/python.log" 2>&1 ||
    { echo "the example $example failed in the clean root:"; cat "$work/python.log"; exit 1; }
  echo "$(basename "$example"): ran in the clean root"
done

apt_in_root purge --autoremove "${runtime[@]}" || { cat "$work/apt.log"; exit 1; }
if ! diff "$work/packages-before" <(packages) || ! diff "$work/files-before" <(files); then
  echo "removing the packages left the above behind"
  exit 1
fi
echo "removed with what they pulled in: no package and no file left"

echo "--- build the examples in the clean root"
cp "$dir"/libksmemcppbinding-dev_*.deb "$root/tmp/debs/libksmemcppbinding-dev.deb"
apt_in_root install --no-install-recommends /tmp/debs/libksmemcppbinding1.deb \
  /tmp/debs/libksmembinding1.deb /tmp/debs/libksmemcppbinding-dev.deb \
  g++ cmake ninja-build pkg-config || { cat "$work/apt.log"; exit 1; }
libs=$(in_root pkg-config --libs ksmemcppbinding)
if [ "$libs" != "-lKsMemCppBinding -lKsMemBinding " ]; then
  echo "pkg-config --libs ksmemcppbinding gives '$libs'"; exit 1
fi
in_root /tmp/build_examples.sh /tmp/examples /tmp/build
