#!/usr/bin/env bash
# Uses the service of the example driver as those do who look after a camera; scripts/package runs this in a system that
# systemd has booted. Prints one line for what works, and ends with a failure at what does not.
set -euo pipefail
service=ptznimbo-sim-driver
socket=/run/ptz/sim-driver/socket

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
  echo "$what: $output"
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

systemd-analyze verify "$service.service" || fail 'the unit is not in order'
systemctl start "$service" || fail 'it does not start'
echo "started: $(systemctl is-active "$service") as $(stat --format=%U "/proc/$(main_process)")"

answers 'a member of ptz asks it'
is_refused_as nobody nogroup 'a stranger' ptzctl driver position --socket "$socket"
works_as nobody ptz 'its status' env PTZ_PLATFORM_RUNTIME_DIR=/run/ptz/sim-driver ptzctl status show
works_as nobody ptz 'its configuration, on the bus' ptzctl config list sim
is_refused_as nobody nogroup 'a stranger on the bus' ptzctl config list sim

works_as nobody ptz 'a preset is stored' ptzctl driver presets store 7 Gate --socket "$socket"
killed=$(main_process)
systemctl kill --signal=KILL "$service"
comes_back 'killed, it comes back' "$killed"
restarted=$(main_process)
systemctl restart dbus
comes_back 'it comes back with the bus' "$restarted"
works_as nobody ptz 'its preset is still there' ptzctl driver presets goto 7 --socket "$socket"

systemctl stop "$service"
[[ ! -e $socket ]] || fail 'its socket is left behind'
echo "stopped: $(systemctl show --property Result --value "$service")"
