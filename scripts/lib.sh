# scripts/lib.sh - what the scripts share; sourced by them, from bash. Sets `root` and works from there.
# shellcheck shell=bash
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

note() { printf '%s: %s\n' "${0##*/}" "$*" >&2; }
die() {
  note "$*"
  exit 1
}

# Prints the comment at the head of the calling script as its help.
show_help() { sed -n '2,/^[^#]/{s/^# \{0,1\}//p}' "$0"; }

# The packages that debian/control lists for a build, one "name relation version" per line (the last two may be
# missing). An entry there is one package: alternatives are not understood.
declared_packages() {
  awk '
    /^#/ { next }
    /^[^ \t]/ { inside = sub(/^Build-Depends:/, "") }
    inside {
      gsub(/<[^<>=]*>|\[[^]]*\]|[()]/, " ")  # build profiles, architectures
      count = split($0, entry, ",")
      for (i = 1; i <= count; i++) if (split(entry[i], word, " ") > 0) print word[1], word[2], word[3]
    }' debian/control
}

# "name version" of each installed package and of each name that one provides.
installed_packages() {
  dpkg-query --show --showformat='${db:Status-Abbrev}|${Package}|${Version}|${Provides}\n' | awk -F'|' '
    $1 ~ /^.i/ {
      print $2, $3
      count = split($4, provided, ",")
      for (i = 1; i <= count; i++) {
        gsub(/[()=]/, " ", provided[i])
        split(provided[i], word, " ")
        print word[1], word[2]
      }
    }'
}

# The declared packages that are not installed, or not in the version that is needed.
missing_packages() {
  local name relation wanted version satisfied
  local -A versions=()
  while read -r name version; do versions[$name]+=" ${version:--}"; done < <(installed_packages)
  while read -r name relation wanted; do
    satisfied=false
    for version in ${versions[$name]-}; do
      # A name that is provided without a version, "-", satisfies no relation to one.
      if [[ -z $relation ]] || { [[ $version != - ]] && dpkg --compare-versions "$version" "$relation" "$wanted"; }
      then
        satisfied=true
        break
      fi
    done
    $satisfied || printf '%s\n' "$name"
  done < <(declared_packages)
}

# Usage: apt_get BY_HAND ARGUMENT... - as root, through sudo where need be; where that cannot be, tells what to do by hand.
apt_get() {
  local by_hand=$1 as_root=()
  shift
  if [[ $EUID != 0 ]]; then
    # Without a terminal nobody could answer sudo's question.
    if command -v sudo >/dev/null && { [[ -t 0 ]] || sudo --non-interactive true 2>/dev/null; }; then
      as_root=(sudo)
    else
      die "$by_hand"
    fi
  fi
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get --quiet "$@" </dev/null
}

# Usage: install_packages NAME... - what a script needs beyond a build.
install_packages() {
  local by_hand="packages are missing: $*
Install them with this command, as root:
  apt-get update && apt-get install --yes --no-install-recommends $*"
  note "installing $*"
  apt_get "$by_hand" update || note "the package lists could not all be updated"
  apt_get "$by_hand" install --yes --no-install-recommends "$@" || die "apt-get could not install $*"
}

# Installs what is missing; says nothing and asks nobody where nothing is.
install_missing_packages() {
  local missing by_hand
  command -v dpkg-query >/dev/null ||
    die "cannot tell what is installed without dpkg; a build needs: $(declared_packages | cut -d' ' -f1 | tr '\n' ' ')"
  missing=$(missing_packages | tr '\n' ' ')
  [[ -n $missing ]] || return 0
  by_hand="packages are missing: $missing
Install them with this command, as root:
  apt-get update && apt-get build-dep --yes $root"
  note "installing $missing"
  # A list that cannot be fetched is no reason to stop: the package may be in another one, or downloaded already.
  apt_get "$by_hand" update || note "the package lists could not all be updated"
  apt_get "$by_hand" build-dep --yes --no-install-recommends "$root" || die "apt-get could not install $missing"
  missing=$(missing_packages | tr '\n' ' ')
  [[ -z $missing ]] || die "still missing: $missing"
}

# Usage: build FOLDER [MESON OPTION]... - configures the folder, or changes what is configured there, and builds it.
build() {
  local folder=$1
  shift
  if [[ -f $folder/meson-private/coredata.dat ]]; then
    # What another version of meson configured cannot be changed, only made anew.
    meson configure "$folder" "$@" || meson setup --wipe "$folder" "$@"
  else
    meson setup "$folder" "$@"
  fi && ninja -C "$folder"
}

# Usage: show_size LIBRARY SCRATCH [PREFIX] - of what is left of it without symbols; PREFIX is that of another machine's tools.
show_size() {
  local library=$1 stripped=$2 prefix=${3-}
  "${prefix}strip" -o "$stripped" "$library"
  printf '%s, stripped: %s\n' "${library##*/}" "$(stat --format=%s "$stripped")"
  "${prefix}size" "$stripped" | awk 'NR == 2 { print "  code and constants " $1 ", data " $2 ", zeroed " $3 }'
}
