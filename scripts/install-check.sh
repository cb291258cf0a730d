#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and runs the installed tool with the build
# folder out of the way, so that nothing it needs can come from the build:
#
#   scripts/install-check.sh [build-folder]        default build/release
#
# The build folder is renamed for the duration and put back on exit, whatever happens.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
[ -x "$build/cli/veltrisca" ] || { echo "install-check: no built tool in $build" >&2; exit 2; }
prefix=$(mktemp -d -t vt-install.XXXXXX)
hidden="$build.install-check-hidden"
restore() {
  [ -d "$hidden" ] && mv "$hidden" "$build"
  rm -rf "$prefix"
}
trap restore EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
mv "$build" "$hidden"

tool="$prefix/bin/veltrisca"
"$tool" --version
"$tool" chart "$prefix/chart.png" --size 320x180
"$tool" render "$prefix/chart.png" "$prefix/applied.png" --mode apply --distortion -50
"$tool" info --mode remove --distortion -50 --size 320x180 >/dev/null
oiiotool --info "$prefix/applied.png"
# A copy of the installed tree in another place still finds its own plug-in.
cp -a "$prefix" "$prefix.moved"
trap 'restore; rm -rf "$prefix.moved"' EXIT
"$prefix.moved/bin/veltrisca" render "$prefix/chart.png" "$prefix.moved/removed.png" --distortion -50
echo "install-check: the installed veltrisca ran from $prefix with $build out of the way"
