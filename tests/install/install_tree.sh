#!/usr/bin/env bash
# Installs the build into a directory of its own and uses it as a stranger would: the build tree is out of reach.
#   install_tree.sh BUILD SOURCE CMAKE WORK; compilers and pkg-config come from the environment
set -euo pipefail
build=$1 source=$2 cmake=$3 work=$4
here=$(dirname "$(readlink -f "$0")")

rm -rf "$work"
mkdir -p "$work/run"
"$cmake" --install "$build" --prefix "$work/staged" >"$work/install.log"
mv "$work/staged" "$work/prefix" # what was installed must not know where it was installed to

prefix=$work/prefix
. "$here/use_tree.sh"
check_no_build_path "$build" "$source"
check_headers_alone
check_symbol_versions
build_and_run_c "$source/examples/daemon.c"
build_and_run_inspector "$source/examples/after_a_death.c"
build_and_run_cc "$cmake" "$source/examples/daemon.cc"
build_and_run_own_services "$source/docs/services.md"
check_manuals
if [ -x "$prefix/bin/encapctl" ]; then
  env -u LD_LIBRARY_PATH "$prefix/bin/encapctl" --version
fi
rm -rf "$work"
