#!/usr/bin/env bash
# Asks the completion of encapctl what it offers.
#   completion.sh FILE BINARIES
set -uo pipefail
[ -x "$2/encapctl" ] || exit 0
PATH=$2:$PATH
. "$1"
failed=0

# offers "encapctl show ''" nhs tunnels: completing that line offers at least these words
offers() {
  local line=$1 wanted
  eval "COMP_WORDS=($line)"
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  _encapctl 2>/dev/null
  for wanted in "${@:2}"; do
    [[ " ${COMPREPLY[*]} " == *" $wanted "* ]] || { echo "'$line' offers no '$wanted': ${COMPREPLY[*]}"; failed=1; }
  done
}

directory=$(mktemp -d)
trap 'rm -rf "$directory"' EXIT
printf '\nVRLWIN1' >"$directory/a-window"
echo other >"$directory/no-window"
echo >"$directory/4711-99.ltrace"

offers "encapctl ''" help list status show summary find check repair trace debug load snapshot destroy
offers "encapctl --dir show sh" show
offers "encapctl --name x show ''" nhs tunnels
offers "encapctl help su" summary
offers "encapctl show ''" nhs tunnels
offers "encapctl show nhs --" --ifh --label --json --file --limit --help
offers "encapctl show nhs --sort ''" index ref label
offers "encapctl show tunnels --valid ''" yes no all
offers "encapctl debug ''" list
offers "encapctl debug 1 category ''" error event init
offers "encapctl find ''" label1= nh= ifh=
offers "encapctl snapshot $directory/no" "$directory/no-window"
offers "encapctl status --dir $directory --name ''" a-window
[[ ${COMPREPLY[*]} == a-window ]] || { echo "other files than windows: ${COMPREPLY[*]}"; failed=1; }
LTRACE_DIR=$directory
offers "encapctl trace ''" 4711
exit $failed
