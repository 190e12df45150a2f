#!/usr/bin/env bash
# Usage: installed_copy.sh BUILD_FOLDER PREFIX SOURCE COMPILER [FLAG]...
#
# Installs into a temporary folder; builds the source against that copy as pkg-config tells, and runs the program.
set -euo pipefail
build=$1 prefix=$2 source=$3
shift 3

scratch=$(mktemp --directory)
trap 'rm -rf "$scratch"' EXIT
meson install -C "$build" --destdir "$scratch" --no-rebuild --quiet

# Moved to where the copy is. PKG_CONFIG_SYSROOT_DIR would move the flags of GLib too, which is not there.
installed=$(find "$scratch" -name ptznimbo-common.pc)
mkdir "$scratch/pkgconfig"
sed "s|^prefix=.*|prefix=$scratch$prefix|" "$installed" >"$scratch/pkgconfig/ptznimbo-common.pc"
export PKG_CONFIG_PATH=$scratch/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}

read -ra flags < <(pkg-config --cflags --libs ptznimbo-common)
"$@" "$source" -x none -o "$scratch/program" "${flags[@]}"
# The program looks for the libraries where it is told; the linker has found them by the flags alone.
LD_LIBRARY_PATH=$(pkg-config --variable=libdir ptznimbo-common) "$scratch/program"
