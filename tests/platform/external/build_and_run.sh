#!/usr/bin/env bash
# Usage: build_and_run.sh SOURCE_ROOT - builds the library against a device's own platform services, and runs a program
# that sees them being called.
set -euo pipefail

root=$1
here=$root/tests/platform/external
scratch=$(mktemp --directory)
trap 'rm -rf "$scratch"' EXIT
read -ra glib_flags <<<"$(pkg-config --cflags --libs gio-2.0)"
# What a build around this one is instrumented with is not for this one.
unset CFLAGS CXXFLAGS LDFLAGS LD_PRELOAD

mkdir "$scratch/device"
cc -Wall -Wextra -Wno-unused-parameter -Werror -shared -fPIC -o "$scratch/device/libdevice_services.so" "$here/services.c" -I"$root/include" \
  "${glib_flags[@]}"

meson setup "$scratch/build" "$root" --buildtype=plain -Dwerror=true -Dtests=false -Dtools=false \
  -Dplatform=external -Dplatform_libraries=device_services -Dplatform_libdirs="$scratch/device"
meson compile -C "$scratch/build" ptznimbo_common
if [[ -n $(find "$scratch/build" -name 'libptznimbo_platform*') ]]; then
  echo 'our own platform services were built, too'
  exit 1
fi

cc -Wall -Wextra -Werror -o "$scratch/program" "$here/program.c" -I"$root/include" -I"$scratch/build/include" -L"$scratch/build/src" \
  -lptznimbo_common -Wl,-rpath-link,"$scratch/device" "${glib_flags[@]}"
cd "$scratch"
LD_LIBRARY_PATH=$scratch/build/src:$scratch/device ./program
