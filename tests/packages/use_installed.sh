#!/usr/bin/env bash
# Uses what the installed packages brought, as those do who install them; scripts/package runs this in a system that
# has only them. Prints one line for what works, and ends with a failure at what does not.
set -euo pipefail
cd "$(dirname "$0")"
scratch=$(mktemp --directory)
trap 'rm -rf "$scratch"' EXIT

# Usage: expect WHAT IS SHOULD_BE
expect() {
  [[ $2 == "$3" ]] || { echo "FAILED: $1 is \"$2\", not \"$3\""; exit 1; }
  echo "$1: $2"
}
nobody() { setpriv --reuid=nobody --regid=nogroup "$@"; }

expect '/run/ptz' "$(stat --format='%a %U:%G' /run/ptz)" '2770 root:ptz'
expect '/var/lib/ptz' "$(stat --format='%a %U:%G' /var/lib/ptz)" '2770 root:ptz'
expect 'a stranger looks into /run/ptz' "$(nobody --clear-groups test -x /run/ptz && echo yes || echo no)" no
expect 'a member of ptz does' "$(nobody --groups ptz test -x /run/ptz && echo yes || echo no)" yes
expect 'a stranger looks into /var/lib/ptz' "$(nobody --clear-groups test -x /var/lib/ptz && echo yes || echo no)" no

# What root wrote first, a member of the group writes again, and the other way round.
member() { nobody --groups ptz "$@"; }
ptzctl param set PTZ.Installed.By root
member ptzctl param set PTZ.Installed.By nobody
expect 'root reads what a member wrote' "$(ptzctl param get PTZ.Installed.By)" nobody
ptzctl param set PTZ.Installed.By root
expect 'a member reads what root wrote' "$(member ptzctl param get PTZ.Installed.By)" root
ptzctl param delete PTZ.Installed

echo '#include <ptz.h>' >"$scratch/public_headers.h"
read -ra flags < <(pkg-config --cflags --libs ptznimbo-common)
gcc -std=c11 -Wall -Wextra -pedantic-errors -Werror -I"$scratch" consumer.c -o "$scratch/consumer" "${flags[@]}"
"$scratch/consumer"
echo 'a program in C: compiled, linked and run'

/usr/libexec/ptznimbo/sim-driver --help >"$scratch/help" || { echo 'FAILED: sim-driver --help'; exit 1; }
echo "sim-driver: $(sed -n '$=' "$scratch/help") lines of help"
expect 'the policy of the bus' "$(test -r /usr/share/dbus-1/system.d/com.velk.PTZ.conf && echo there)" there

# A server in Python: it has introspection data and nothing else of the library.
/usr/bin/python3 bindings_test.py none CommandChannel.test_a_server_in_python_answers DynamicalProperties Vocabulary \
  2>"$scratch/python" || { cat "$scratch/python"; exit 1; }
echo "a program in Python: $(grep '^Ran' "$scratch/python")"

tools=$(dpkg --listfiles ptznimbo-tools | sed -n 's|^/usr/bin/||p')
for tool in $tools; do
  "$tool" --help >"$scratch/help" || { echo "FAILED: $tool --help"; exit 1; }
  echo "$tool: $(head -n 1 "$scratch/help")"
done
[[ -n $tools ]] || { echo 'FAILED: no tool is installed'; exit 1; }

ldd /usr/lib/*/libptznimbo_common.so.0 | grep --quiet 'not found' && { echo 'FAILED: a library is missing'; exit 1; }
[[ -z $(dpkg --audit) ]] || { dpkg --audit; exit 1; }
echo 'no library is missing, no package is left half done'
