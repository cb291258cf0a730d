#!/usr/bin/env bash
# Installs what the build, the tests, the demo and the benchmarks' build need from Debian's
# package archive, and nothing more (idempotent: only missing packages are installed).
#
#   scripts/setup.sh            what the README's commands need
#   scripts/setup.sh --farm     that and a farm manager for the farm test (tests/farm/)
#
#   g++ make cmake                  the compiler and the build
#   libopenimageio-dev              image files; Debian's CMake package for it names the
#   openimageio-tools               command-line tools (iconvert, oiiotool...) as imported
#                                   targets and refuses to configure without them
#   zlib1g-dev                      the PNG chunk checksums of cli/image/ImageIO.cpp
#   libcli11-dev                    command-line options
#   libgtest-dev libgmock-dev       the tests
#   libbenchmark-dev                the benchmarks
#   nlohmann-json3-dev              lens files and info --json (cli/lens/LensFile.cpp, cli/shared/Json.cpp)
#   liblensfun-dev                  lens --from lensfun reads the lensfun database through
#   liblensfun-data-v1              liblensfun; the tests compare with its own correction
#   python3-opencv                  test only: OpenCV's initUndistortRectifyMap as the oracle
#                                   of lens --from opencv (tests/cli/lens/LensImportTest.cpp)
#   libopencv-dev                   solve: the chessboard detectors (findChessboardCornersSB,
#                                   findChessboardCorners, cornerSubPix) and the
#                                   Levenberg-Marquardt solver of the plumb-line fit
#                                   (cv::LMSolver), from C++ (cli/solve/)
#   libopencv-contrib-dev           solve and chart --board charuco:...: ChArUco boards (OpenCV's
#                                   aruco module: markers, interpolated corners, the drawing)
#   fonts-dejavu-core               the labels of solve's report pictures and the count printed
#                                   on chart --board (OpenImageIO's render_text needs a font)
#
# With --farm only:
#   slurm-wlm                       Slurm's controller, node daemon and commands: the farm test
#                                   runs a job array on a one-node cluster that
#                                   scripts/slurm-local.sh starts as plain processes
#   munge                           the credentials Slurm's daemons and commands authenticate
#                                   with (the cluster runs a munged of its own, with its own key)
set -euo pipefail
packages=(g++ make cmake libopenimageio-dev openimageio-tools zlib1g-dev libcli11-dev
          libgtest-dev libgmock-dev libbenchmark-dev nlohmann-json3-dev liblensfun-dev
          liblensfun-data-v1 python3-opencv libopencv-dev libopencv-contrib-dev
          fonts-dejavu-core)
for arg in "$@"; do
  case $arg in
    --farm) packages+=(slurm-wlm munge) ;;
    *) echo "usage: $0 [--farm]" >&2; exit 2 ;;
  esac
done
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
