#!/usr/bin/env bash
# Checks the Debian package as a host would use it, without installing it: unpacks it into a
# temporary root and runs the programs, the example job script and the manual pages from there.
# Usage: scripts/check-package.sh <package.deb> <build folder>
# The build folder's plain install (cmake --install) must hold the same files as the package.
# Prints one line per check and "package: N passed, M failed"; exits 1 when a check failed.
set -u
deb="${1:?usage: check-package.sh <package.deb> <build folder>}"
build="${2:?usage: check-package.sh <package.deb> <build folder>}"
deb=$(realpath "$deb")

work=$(mktemp -d)
sim_pid=
trap '[ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null; rm -rf "$work"' EXIT
root="$work/root"
passed=0
failed=0
check() {  # check NAME COMMAND...: runs the command, its output kept in $work/out
  if "${@:2}" > "$work/out" 2>&1; then
    echo "ok      $1"
    passed=$((passed + 1))
  else
    echo "FAILED  $1"
    sed 's/^/        /' "$work/out"
    failed=$((failed + 1))
  fi
}

dpkg-deb -x "$deb" "$root" || { echo "dpkg-deb -x $deb failed"; exit 1; }
bin="$root/usr/bin"
doc="$root/usr/share/doc/qx-jpmd"
version=$(dpkg-deb -f "$deb" Version)

# The package holds exactly what `cmake --install` puts under /usr (manual pages compressed).
same_files_as_install() {
  DESTDIR="$work/plain" cmake --install "$build" --prefix /usr > /dev/null || return 1
  diff <(cd "$work/plain" && find . -type f | sed 's/\.\([1-9]\)$/.\1.gz/' | sort) \
       <(cd "$root" && find . -type f | sort)
}
check "the package holds what an install holds" same_files_as_install

only_programs() {
  diff <(ls "$bin") <(printf '%s\n' qx_agentsim qx_jpmd qx_scramble)
}
check "usr/bin holds the three programs and nothing else" only_programs

version_answer() {
  local line
  line=$("$bin/qx_jpmd" -V) || return 1
  echo "$line"
  [ "$line" = "QX7 Agent \"qx_jpmd\" version $version, changelist '1530016094'" ]
}
check "qx_jpmd -V names the package's version $version" version_answer

static_messenger() {
  file -L "$bin/qx_jpmd" 2>/dev/null | grep -q 'statically linked' ||
    ! readelf -l "$bin/qx_jpmd" | grep -q 'Requesting program interpreter'
}
check "qx_jpmd is linked statically" static_messenger

# The example job script against the unpacked agent simulator: every event arrives.
example_job() {
  "$bin/qx_agentsim" --port 0 --json --count 4 > "$work/agent.log" &
  sim_pid=$!
  for _ in $(seq 100); do
    [ -s "$work/agent.log" ] && break
    sleep 0.05
  done
  local port
  port=$(head -n 1 "$work/agent.log" | awk '{print $NF}')
  [ -n "$port" ] || { echo "the simulator did not start"; return 1; }
  QX_JPMD="$bin/qx_jpmd" AGENT_PORT="$port" JOBNR=816 TMPDIR="$work" \
    sh "$doc/examples/job.sh" > "$work/job.log" || { cat "$work/job.log"; return 1; }
  # With --count 4 the simulator ends by itself after the fourth event.
  for _ in $(seq 100); do
    kill -0 "$sim_pid" 2>/dev/null || break
    sleep 0.05
  done
  wait "$sim_pid" || { cat "$work/agent.log"; return 1; }
  sim_pid=
  cat "$work/agent.log"
  local kind
  for kind in status output variable end; do
    grep -q "\"event\":\"$kind\",\"job\":816" "$work/agent.log" ||
      { echo "no $kind event"; return 1; }
  done
}
check "the example job script delivers every event to qx_agentsim" example_job

for page in "$root"/usr/share/man/man1/*; do
  name=$(basename "$page")
  man_renders() {
    local err
    # A locale the host lacks would make man complain on its own account.
    err=$(LC_ALL=C.UTF-8 MANWIDTH=80 man -l "$1" 2>&1 > /dev/null) || { echo "$err"; return 1; }
    [ -z "$err" ] || { echo "$err"; return 1; }
  }
  check "man -l $name" man_renders "$page"
  check "mandoc -Tlint $name" mandoc -Tlint -W warning "$page"
done

# The Wireshark dissector stands in tshark's system Lua plugin folder and loads there.
dissector_loads() {
  local lua
  lua=$(find "$root/usr/lib" -path '*/wireshark/plugins/qx7.lua' | head -n 1)
  [ -n "$lua" ] || { echo "no wireshark/plugins/qx7.lua in the package"; return 1; }
  echo "$lua"
  if ! command -v tshark > /dev/null; then
    echo "tshark is not installed: not loaded"
    return 0
  fi
  local folder
  folder=$(HOME="$work" tshark -G folders 2>/dev/null | awk -F'\t' '/^Global Lua Plugins:/{print $2}')
  [ "$root$folder/qx7.lua" = "$lua" ] || { echo "tshark's folder is $folder"; return 1; }
  # Loaded from a user's plugin folder of a home of its own: tshark then lists the protocol.
  mkdir -p "$work/home/.local/lib/wireshark/plugins"
  cp "$lua" "$work/home/.local/lib/wireshark/plugins/"
  HOME="$work/home" tshark -G protocols 2>&1 | grep -q "	qx7$"
}
check "the dissector lies in tshark's Lua plugin folder and loads" dissector_loads

lintian_no_errors() {
  lintian --allow-root --display-info --show-overrides "$deb" > "$work/lintian" 2>&1
  cat "$work/lintian"
  ! grep -q '^E:' "$work/lintian"
}
check "lintian reports no errors" lintian_no_errors
sed 's/^/        /' "$work/lintian"

echo "package: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
