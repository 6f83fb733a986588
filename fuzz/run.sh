#!/usr/bin/env bash
# Runs every libFuzzer target built in BUILD/fuzz for SECONDS each, starting from its seeds:
# the files under fuzz/seeds/<name>/, and for the definition-file parser the shipped files.
set -euo pipefail
build=${1:?build directory}
seconds=${2:-60}
cd "$(dirname "$0")/.."
for target in "$build"/fuzz/*_fuzz; do
  name=$(basename "$target" _fuzz)
  corpus="$build/corpus/$name"
  mkdir -p "$corpus"
  options=()
  case "$name" in
    config) cp data/sim/*.def "$corpus"/; options+=(-max_len=16384) ;;
    image) options+=(-max_len=8192) ;;
  esac
  if [ -d "fuzz/seeds/$name" ]; then cp "fuzz/seeds/$name"/* "$corpus"/; fi
  echo "== fuzzing $name for ${seconds}s"
  (cd "$build" && "./fuzz/$(basename "$target")" -max_total_time="$seconds" -print_final_stats=1 \
    "${options[@]}" "corpus/$name")
done
