# What a user does with an installed tree at $prefix, in the directory $work/run. Sourced by the tests.

export PKG_CONFIG_PATH=
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name encap_db_owner.pc)")
libdir=$(dirname "$PKG_CONFIG_PATH")
headers="mpls_egress_encap_db.h avl.h ed.h ed_catalogue.h ltrace.h oxa_errmsg.h ptd.h shmwin.h encap_db_owner.h encap_client.h encap_inspect.h"

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# The tree can be moved and copied: no text in it names the machine it was built on.
check_no_build_path() {
  local path
  for path in "$@"; do
    ! grep -rlI --exclude-dir=doc -F "$path" "$prefix" || fail "an installed text names $path"
  done
  ! readelf -d "$libdir"/*.so "$prefix"/*bin/* | grep -E 'R(UN)?PATH' | grep -vF '[$ORIGIN:$ORIGIN/../' ||
    fail "a run path leads out of the tree"
}

# Exactly the contract headers, each complete in itself in either language.
check_headers_alone() {
  local header flags
  flags=$("$PKG_CONFIG" --cflags encap_db_owner)
  [ "$(find "$prefix/include" -type f -printf '%f\n' | sort | xargs)" = "$(echo "$headers" | xargs -n1 | sort | xargs)" ] ||
    fail "other headers than the contracts' are installed"
  for header in $headers; do
    # shellcheck disable=SC2086
    echo "#include <$header>" | "$CC" -std=c11 -Wall -Wextra -Wpedantic -Werror $flags -fsyntax-only -x c - ||
      fail "$header does not stand alone in C11"
    # shellcheck disable=SC2086
    echo "#include <$header>" | "$CXX" -std=c++17 -Wall -Wextra -Wpedantic -Werror $flags -fsyntax-only -x c++ - ||
      fail "$header does not stand alone in C++17"
  done
}

exports_of() {
  nm -D --defined-only "$libdir/lib$1.so" | awk '{ print $3 }'
}

# The names by which the database calls its services carry no version, on either side; all other names of the services
# and of the owner do.
check_symbol_versions() {
  local called versioned
  versioned=$(readelf -WV "$libdir/libmpls_egress_encap_db.so" | grep -E 'File: |Name of' || true)
  ! grep -q vrellis <<<"$versioned" || fail "the database asks for a version of its services: $versioned"
  ! exports_of mpls_egress_encap_db | grep @ || fail "names of the database carry a version"
  called=$(nm -D --undefined-only "$libdir/libmpls_egress_encap_db.so" | awk '{ print $2 }' |
    grep -E '^(avl|ed|_ltrace|oxa|ptd|shmwin)_' | sort)
  [ "$(exports_of vrellis_services | grep -v -e @ -e '^VRELLIS_SERVICES_1$' | sort)" = "$called" ] ||
    fail "the unversioned names of the services are not those that the database calls"
  local library
  for library in encap_db_owner encap_client encap_inspect; do
    ! exports_of $library | grep -v -e "@@${library^^}_1\$" -e "^${library^^}_1\$" ||
      fail "a name of $library carries no version"
  done
  [ "$(exports_of encap_inspect | grep '^encap_' | sort | xargs)" = \
    "$(grep -o '^ENCAP_INSPECT_API int [a-z_]*' "$prefix/include/vrellis/encap_inspect.h" | awk '{ print $3 "@@ENCAP_INSPECT_1" }' | sort | xargs)" ] ||
    fail "the inspector exports other names than its header declares"
}

# Runs a program linked against the tree, its database in a directory of its own.
run_against_tree() {
  local name=$1
  LD_LIBRARY_PATH=$libdir ldd "$work/run/$name" | grep -E 'encap|vrellis' | grep -vF "=> $libdir/" &&
    fail "$name found libraries outside the tree"
  mkdir -p "$work/run/window"
  LD_LIBRARY_PATH=$libdir "$work/run/$name" "$work/run/window" >"$work/run/$name.out" || fail "$name: status $?"
  cat "$work/run/$name.out"
}

build_and_run_c() {
  # shellcheck disable=SC2046
  "$CC" -std=c11 -Wall -Wextra -Werror "$1" -o "$work/run/daemon_c" $("$PKG_CONFIG" --cflags --libs encap_client)
  run_against_tree daemon_c
  grep -q '^NH 1000 (new) on tunnel 1 (new)$' "$work/run/daemon_c.out" || fail "daemon.c printed something else"
}

# The example of what a daemon does after a death; it links the inspector alone.
build_and_run_inspector() {
  # shellcheck disable=SC2046
  "$CC" -std=c11 -Wall -Wextra -Werror "$1" -o "$work/run/after_a_death" $("$PKG_CONFIG" --cflags --libs encap_inspect)
  run_against_tree after_a_death
  grep -q '^findings before: 1, now: 0$' "$work/run/after_a_death.out" || fail "after_a_death.c printed something else"
}

build_and_run_cc() {
  local cmake=$1 project=$work/run/project
  mkdir -p "$project"
  cp "$2" "$project/daemon.cc"
  cat >"$project/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(user CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(mpls_egress_encap_db 1.0 REQUIRED)
foreach(target mpls_egress_encap_db vrellis_services encap_db_owner encap_client encap_inspect)
  if(NOT TARGET mpls_egress_encap_db::${target})
    message(FATAL_ERROR "the package has no ${target}")
  endif()
endforeach()
add_executable(daemon_cc daemon.cc)
target_link_libraries(daemon_cc PRIVATE mpls_egress_encap_db::encap_client)
CMAKE
  "$cmake" -S "$project" -B "$project/build" -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/run/cmake.log" || fail "find_package: $(cat "$work/run/cmake.log")"
  "$cmake" --build "$project/build" >"$work/run/build.log" || fail "build: $(cat "$work/run/build.log")"
  cp "$project/build/daemon_cc" "$work/run/"
  run_against_tree daemon_cc
  grep -q '^NH 1002 on tunnel 1 is entered$' "$work/run/daemon_cc.out" || fail "daemon.cc printed something else"
}

# The example that docs/services.md prints: services in the executable, then the same ones as a whole library in place of
# ours, in which no name has a version.
build_and_run_own_services() {
  local flags libs
  sed -n '/^```c$/,/^```$/p' "$1" | sed '1d;$d' >"$work/run/own_services.c"
  flags=$("$PKG_CONFIG" --cflags mpls_egress_encap_db vrellis_services)
  libs=$("$PKG_CONFIG" --libs mpls_egress_encap_db vrellis_services)
  # shellcheck disable=SC2086
  "$CC" -std=c11 -Wall -Wextra -Werror $flags "$work/run/own_services.c" -o "$work/run/own_services" -rdynamic $libs
  run_against_tree own_services
  grep -q '^trace records of the lookup: 5$' "$work/run/own_services.out" || fail "the own services were not called"

  mkdir -p "$work/run/replacement"
  # shellcheck disable=SC2086
  "$CC" -std=c11 $flags -Dmain=run_example -shared -fPIC "$work/run/own_services.c" \
    -o "$work/run/replacement/libvrellis_services.so.1" -Wl,-soname,libvrellis_services.so.1
  echo 'int run_example(void); int main(void) { return run_example(); }' | "$CC" -x c - -x none -o "$work/run/replaced" \
    -Wl,--no-as-needed "$libdir/libmpls_egress_encap_db.so" "$work/run/replacement/libvrellis_services.so.1"
  LD_LIBRARY_PATH=$work/run/replacement:$libdir "$work/run/replaced" >"$work/run/replaced.out" ||
    fail "a replaced library of services: status $?"
  grep -q '^trace records of the lookup: 5$' "$work/run/replaced.out" || fail "the replaced library was not called"
}

check_manuals() {
  local page
  command -v groff >/dev/null || return 0
  for page in $(find "$prefix/share/man" -type f); do
    told=$(zcat "$page" | groff -ww -man -Tutf8 -z 2>&1)
    [ -z "$told" ] || fail "$page: $(head -3 <<<"$told")"
  done
}
