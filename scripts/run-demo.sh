#!/usr/bin/env bash
# Sets everything up, builds, writes a lens chart and runs it through Remove and Apply:
#   out/chart.png          the undistorted test chart (1920x1080)
#   out/chart-applied.png  the chart as a lens with DistortionX1000 -50 would film it
#   out/chart-removed.png  that plate with the distortion removed again
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh release
tool=build/release/cli/veltrisca
mkdir -p out
"$tool" chart out/chart.png --size 1920x1080
"$tool" render out/chart.png out/chart-applied.png --mode apply --distortion -50
"$tool" render out/chart-applied.png out/chart-removed.png --mode remove --distortion -50
"$tool" info --mode remove --distortion -50
echo "demo: wrote out/chart.png, out/chart-applied.png and out/chart-removed.png"
