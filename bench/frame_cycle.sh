#!/bin/sh
# One frame cycle side by side: a 10 ms exposure of a 4096 x 4096 chip, from the command to the
# FITS file on disk, by the INDI CCD simulator and by `tvxcam series` on the simulated 4096 x 4096
# chip with the star field. Both run in the same round, one after the other, and the rounds
# repeat, because the machine is shared and its speed wanders; each round prints both per-frame
# times and their ratio, and the end prints the spread.
#
#   bench/frame_cycle.sh [BUILD_DIR] [FRAMES] [ROUNDS]      (defaults: build 5 3)
#
# TVXCAM names another tvxcam program to time (an older build, say).
#
# What is timed, on either side, leaves the start-up out:
# - INDI: indiserver and the driver are started, connected, set to 4096 x 4096 and to local
#   upload before the clock starts. Each frame is `indi_setprop` of the exposure, then waiting for
#   the FITS file to appear and for the exposure to read Ok again (the driver says Ok only once
#   the file is written). The per-frame time is the whole loop over FRAMES frames, divided.
# - tvx: `tvxcam series` prints its heading once the controller is booted and the camera set up,
#   and a line as each frame's file is written. Each line is stamped as it arrives; the per-frame
#   time is from the heading to the last frame's line, divided by FRAMES.
set -eu

here=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
frames=${2:-5}
rounds=${3:-3}
case $build in /*) ;; *) build=$here/$build ;; esac
tvxcam=${TVXCAM:-$build/tools/tvxcam/tvxcam}

for tool in indiserver indi_simulator_ccd indi_setprop indi_getprop indi_eval; do
  command -v $tool >/dev/null 2>&1 || {
    echo "frame_cycle: $tool is missing (Debian package indi-bin)" >&2
    exit 2
  }
done
[ -x "$tvxcam" ] || {
  echo "frame_cycle: $tvxcam is not built (make build)" >&2
  exit 2
}

work=$(mktemp -d /tmp/tvx-frame-cycle-XXXXXX)
server=""
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null && wait "$server" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT INT TERM

now() {
  date +%s.%N
}

# A loopback port nobody listens on.
port=$(/usr/bin/python3 -c 'import socket
s = socket.socket()
s.bind(("127.0.0.1", 0))
print(s.getsockname()[1])')

# The driver keeps its configuration under $HOME: give it a home of its own.
mkdir -p "$work/home" "$work/indi" "$work/tvx"
HOME=$work/home indiserver -p "$port" indi_simulator_ccd >"$work/indiserver.log" 2>&1 &
server=$!
dev="CCD Simulator"
i=0
until indi_getprop -p "$port" -t 1 "$dev.CONNECTION.CONNECT" >/dev/null 2>&1; do
  i=$((i + 1))
  [ $i -lt 30 ] || {
    echo "frame_cycle: indiserver did not answer on port $port" >&2
    cat "$work/indiserver.log" >&2
    exit 1
  }
  sleep 0.2
done
indi_setprop -p "$port" "$dev.SIMULATOR_SETTINGS.SIM_XRES;SIM_YRES=4096;4096"
indi_setprop -p "$port" "$dev.CONNECTION.CONNECT=On"
indi_eval -p "$port" -t 30 -w "\"$dev.CCD_INFO.CCD_MAX_X\"==4096" >/dev/null
indi_setprop -p "$port" "$dev.UPLOAD_MODE.UPLOAD_LOCAL=On"

# The INDI side: one round of FRAMES exposures; prints seconds per frame.
indi_round() {
  dir=$work/indi/$1
  mkdir -p "$dir"
  indi_setprop -p "$port" "$dev.UPLOAD_SETTINGS.UPLOAD_DIR;UPLOAD_PREFIX=$dir;f_XXX"
  start=$(now)
  n=1
  while [ $n -le "$frames" ]; do
    file=$(printf '%s/f_%03d.fits' "$dir" $n)
    indi_setprop -p "$port" "$dev.CCD_EXPOSURE.CCD_EXPOSURE_VALUE=0.01"
    waited=0
    until [ -e "$file" ]; do
      sleep 0.005
      waited=$((waited + 1))
      [ $waited -lt 12000 ] || {
        echo "frame_cycle: INDI wrote no $file" >&2
        exit 1
      }
    done
    indi_eval -p "$port" -t 60 -w "\"$dev.CCD_EXPOSURE._STATE\"==1" >/dev/null
    n=$((n + 1))
  done
  end=$(now)
  echo "$start $end $frames" | awk '{ printf "%.3f", ($2 - $1) / $3 }'
}

# The tvx side: one series of FRAMES exposures; prints seconds per frame.
tvx_round() {
  dir=$work/tvx/$1
  mkdir -p "$dir"
  # Line-buffered, so that each line is stamped when tvxcam writes it.
  stdbuf -oL "$tvxcam" series -n "$frames" -e 10 --ccd "$here/data/sim/sim_4k.def" \
    --scene starfield -o "$dir/f.fits" |
    while IFS= read -r line; do echo "$(now) $line"; done >"$dir/stamped.txt"
  [ "$(ls "$dir"/f_*.fits | wc -l)" -eq "$frames" ] || {
    echo "frame_cycle: tvxcam series did not write $frames files" >&2
    cat "$dir/stamped.txt" >&2
    exit 1
  }
  awk -v n="$frames" '$2 == "frames" && !start { start = $1 }
    $2 == "frame" { last = $1 }
    END { printf "%.3f", (last - start) / n }' "$dir/stamped.txt"
}

echo "frame cycle, 4096 x 4096, 10 ms exposures to FITS files, $frames frames a round"
printf '%-8s %12s %12s %8s\n' round "INDI s/frame" "tvx s/frame" "tvx/INDI"
ratios=""
r=1
while [ $r -le "$rounds" ]; do
  indi=$(indi_round $r)
  tvx=$(tvx_round $r)
  ratio=$(echo "$tvx $indi" | awk '{ printf "%.3f", $1 / $2 }')
  printf '%-8s %12s %12s %8s\n' $r "$indi" "$tvx" "$ratio"
  ratios="$ratios $ratio"
  rm -rf "$work/indi/$r" "$work/tvx/$r"
  r=$((r + 1))
done
echo "$ratios" | tr ' ' '\n' | grep . | sort -n |
  awk '{ v[NR] = $1 } END { printf "tvx/INDI over %d rounds: min %.3f, median %.3f, max %.3f\n",
    NR, v[1], (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2), v[NR] }'
