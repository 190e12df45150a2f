#!/usr/bin/env bash
# Uses the service of the simulated driver as those do who look after a camera, and that of a driver on the kit;
# scripts/package runs this in a system that systemd has booted. Prints one line for what works, and ends with a failure at what does not.
set -euo pipefail
service=ptznimbo-sim-driver
socket=/run/ptz/sim-driver.socket

fail() { echo "FAILED: $*"; journalctl --unit "$service" --no-pager | tail --lines=20; exit 1; }

# Usage: works_as USER GROUP WHAT COMMAND...
works_as() {
  local user=$1 group=$2 what=$3 output
  shift 3
  output=$(setpriv --reuid="$user" --regid=nogroup --groups="$group" "$@" 2>&1) || fail "$what as $user:$group: $output"
  echo "$what: $(head -n 1 <<<"${output:-done}")"
}
is_refused_as() {
  local user=$1 group=$2 what=$3 output
  shift 3
  ! output=$(setpriv --reuid="$user" --regid=nogroup --groups="$group" "$@" 2>&1) || fail "$what is not refused"
  echo "$what: $(head -n 1 <<<"$output")"
}
# Usage: expect WHAT IS SHOULD_BE
expect() {
  [[ $2 == "$3" ]] || fail "$1 is \"$2\", not \"$3\""
  echo "$1: $2"
}
answers() { works_as nobody ptz "$1" ptzctl driver position --socket "$socket"; }
# Usage: comes_back WHAT FORMER_PROCESS
comes_back() {
  local attempt
  for ((attempt = 0; attempt < 100; ++attempt)); do
    if [[ $(main_process) != 0 && $(main_process) != "$2" ]] && systemctl --quiet is-active "$service"; then
      answers "$1"
      return
    fi
    sleep 0.1
  done
  fail "$1"
}
main_process() { systemctl show --property MainPID --value "$service"; }
access_of() { stat --format='%a %U:%G' "$1"; }

# Three users of the tree: root, the driver's user, and another member of the group.
as_member() { setpriv --reuid=nobody --regid=nogroup --groups=ptz "$@"; }
as_driver() { setpriv --reuid=ptz --regid=ptz --clear-groups "$@"; }

# Usage: expect_parameter WHAT PATH VALUE - which the driver writes in the background.
expect_parameter() {
  local attempt value=
  for ((attempt = 0; attempt < 100; ++attempt)); do
    value=$(as_member ptzctl param get "$2" 2>&1) || true
    [[ $value != "$3" ]] || break
    sleep 0.1
  done
  expect "$1" "$value" "$3"
}

# Usage: share_parameter - each user writes what the others have written, and all read it.
share_parameter() {
  local writer reader
  for writer in env as_member as_driver env; do
    $writer ptzctl param set PTZ.Shared.By "$writer" || fail "$writer cannot write a parameter"
    for reader in env as_member as_driver; do
      [[ $($reader ptzctl param get PTZ.Shared.By) == "$writer" ]] || fail "$reader cannot read what $writer wrote"
    done
  done
  ptzctl param delete PTZ.Shared || fail 'root cannot delete a group'
}

expect '/run/ptz' "$(access_of /run/ptz)" '2770 root:ptz'
expect '/var/lib/ptz' "$(access_of /var/lib/ptz)" '2770 root:ptz'

# Root is the first to write to the tree, before any other user.
ptzctl param create PTZ.Head sim_head 1 >/dev/null || fail 'root cannot create a group'
ptzctl param set PTZ.Head.H1.SpeedPercent 50 || fail 'root cannot write a parameter'
share_parameter
echo 'root, the user ptz and a member of the group write parameters in turn: done'

systemd-analyze verify "$service.service" || fail 'the unit is not in order'
systemctl start "$service" || fail 'it does not start'
echo "started: $(systemctl is-active "$service") as $(stat --format=%U "/proc/$(main_process)")"

answers 'a member of ptz asks it'
is_refused_as nobody nogroup 'a stranger' ptzctl driver position --socket "$socket"
works_as nobody ptz 'its status, for a member of ptz' ptzctl status show
is_refused_as nobody nogroup 'its status, for a stranger' ptzctl status show
works_as nobody ptz 'its timings' ptzctl timing show
works_as nobody ptz 'its configuration, on the bus' ptzctl config list sim
is_refused_as nobody nogroup 'a stranger on the bus' ptzctl config list sim

expect_parameter 'a member reads what the driver has set' PTZ.State.S1.Starts 1
as_member ptzctl param set PTZ.Head.H1.PanMax 4500 || fail 'a member cannot write a parameter of the driver'
share_parameter
echo 'all three write beside the running driver: done'
is_refused_as nobody nogroup 'the parameters, for a stranger' ptzctl param get PTZ.Head.H1.PanMax

works_as nobody ptz 'a preset is stored' ptzctl driver presets store 7 Gate --socket "$socket"
killed=$(main_process)
systemctl kill --signal=KILL "$service"
comes_back 'killed, it comes back' "$killed"
expect_parameter 'it has counted its second start in the tree' PTZ.State.S1.Starts 2
as_member ptzctl driver limits --socket "$socket" >/tmp/limits
grep --quiet '45\.00' /tmp/limits || fail "it does not obey the limit that a member has set: $(cat /tmp/limits)"
echo 'it obeys the limit that a member has set: 45 degrees'
restarted=$(main_process)
systemctl restart dbus
comes_back 'it comes back with the bus' "$restarted"
works_as nobody ptz 'its preset is still there' ptzctl driver presets goto 7 --socket "$socket"

systemctl stop "$service"
[[ ! -e $socket ]] || fail 'its socket is left behind'
echo "stopped: $(systemctl show --property Result --value "$service")"
expect_parameter 'it has told the tree that it ended' PTZ.State.S1.Ended 3
expect '/run/ptz, afterwards' "$(access_of /run/ptz)" '2770 root:ptz'
expect '/var/lib/ptz, afterwards' "$(access_of /var/lib/ptz)" '2770 root:ptz'
! find /run/ptz /var/lib/ptz -perm /0007 ! -name '*.socket' ! -type l | grep . || fail 'this is open to strangers'

# A driver on the kit, which hangs and is given bad settings.
service=kit-driver
socket=/run/ptz/kit-driver.socket
settings=/etc/ptz/kit-driver.conf
restarts() { systemctl show --property NRestarts --value "$service"; }

read -ra flags < <(pkg-config --cflags --libs ptznimbo-kit)
gcc -std=c11 -Wall -Wextra -Werror /tests/kit-driver.c -o /tests/kit-driver "${flags[@]}"
install -D /tests/kit-driver /usr/local/libexec/kit-driver
printf '[Head]\nSpeedPercent=50\n' >"$settings"
systemd-analyze verify "$service.service" || fail 'the unit is not in order'
systemctl start "$service" || fail 'it does not start'
answers 'a driver on the kit answers as soon as it is started'
expect 'its descriptors' "$(awk '/Max open files/ { print $4 }' "/proc/$(main_process)/limits")" 4096

watched=$(main_process)
sleep 5
expect 'the watchdog leaves it alone while it works' "$(main_process) $(restarts)" "$watched 0"

kill -STOP "$watched"
! asked=$(as_member ptzctl driver position --socket "$socket" --timeout 300 2>&1) || fail "it answers while it hangs: $asked"
grep --quiet --extended-regexp 'no (answer|reply)|timed out' <<<"$asked" || fail "the deadline is not told: $asked"
echo "it hangs: $asked"
comes_back 'the watchdog has started it again' "$watched"
journalctl --unit "$service" --no-pager | grep --quiet --ignore-case 'watchdog timeout' || fail 'that was not the watchdog'
expect 'restarts' "$(restarts)" 1

printf '[Head]\nSpeedPercent=0\n' >"$settings"
! systemctl restart "$service" 2>/dev/null || fail 'it starts with bad settings'
sleep 2
expect 'with bad settings it is not started again' \
  "$(systemctl show --property ActiveState,ExecMainStatus,NRestarts --value "$service" | sort | xargs)" '0 2 failed'
journalctl --unit "$service" --no-pager | grep --only-matching "$settings:2:.*" | tail --lines=1 | grep . ||
  fail 'the file and the line are not told'
printf '[Head]\nSpeedPercent=50\n' >"$settings"
systemctl start "$service" || fail 'it does not start with mended settings'
systemctl stop "$service"
[[ ! -e $socket ]] || fail 'its socket is left behind'
echo "stopped: $(systemctl show --property Result --value "$service")"
