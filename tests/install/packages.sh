#!/usr/bin/env bash
# Builds the Debian packages, has lintian look at them, and uses what they hold from a directory: nothing is installed
# on this machine.
#   packages.sh BUILD SOURCE CPACK WORK; compilers, pkg-config and lintian come from the environment
set -euo pipefail
build=$1 source=$2 cpack=$3 work=$4
here=$(dirname "$(readlink -f "$0")")
names="libmpls-egress-encap-db1 libmpls-egress-encap-db-dev mpls-egress-encap-db-tools encapd"

rm -rf "$work"
mkdir -p "$work/run"
"$cpack" --config "$build/CPackConfig.cmake" -B "$work" >"$work/cpack.log" || { cat "$work/cpack.log"; exit 1; }

package() {
  find "$work" -maxdepth 1 -name "$1_*.deb"
}

check_control() {
  local library=$1 tools=$2
  dpkg-deb -f "$library" Depends | grep -q 'libc6 (>=' || { echo "no dependencies were found"; exit 1; }
  dpkg-deb -f "$tools" Depends | grep -qF 'libmpls-egress-encap-db1 (=' || { echo "the tools need no library"; exit 1; }
  dpkg-deb --ctrl-tarfile "$library" | tar -xO ./shlibs | grep -q '^libmpls_egress_encap_db 1 libmpls-egress-encap-db1' ||
    { echo "the library does not tell what depends on it what to need"; exit 1; }
}

use_packages() {
  if [ -x "$prefix/bin/encapctl" ]; then
    "$prefix/bin/encapctl" --version
    "$prefix/bin/encapctl" --help >"$work/run/help"
    grep -q status "$work/run/help"
  fi
  "$prefix/sbin/encapd" --version
  "$prefix/bin/encap_demo" "$prefix/share/doc/mpls-egress-encap-db/examples/routes.txt" | tail -1
  build_and_run_c "$prefix/share/doc/mpls-egress-encap-db/examples/daemon.c"
}

for name in $names; do
  [ -n "$(package "$name")" ] || { echo "no package $name"; exit 1; }
  dpkg-deb -x "$(package "$name")" "$work/root"
done
if [ -n "$LINTIAN" ]; then
  # shellcheck disable=SC2046
  "$LINTIAN" --allow-root --fail-on error,warning $(for name in $names; do package "$name"; done)
fi
check_control "$(package libmpls-egress-encap-db1)" "$(package mpls-egress-encap-db-tools)"
prefix=$work/root/usr
. "$here/use_tree.sh"
check_no_build_path "$build" "$source"
use_packages

rm -rf "$work"
