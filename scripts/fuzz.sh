#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, address + undefined sanitizers, build-fuzz/) and runs
# each for a share of a bounded time: the IES parser, the picture import through the
# file-format registry, the JSON-lines front ends of the kelvo tool, and the Embree
# intersection classes with random meshes and rays.
#   scripts/fuzz.sh [SECONDS] [TARGET...]   (default 60 in all, split evenly; targets ies,
#                                            image, jsonl, engine)
# Seeds: the IES files of the repository and of the shared corpus (read where they lie,
# never copied), pictures the kelvo tool of the fuzz build writes from them, and requests
# of each JSON-lines command.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
shift || true
targets=("$@")
[ "${#targets[@]}" -gt 0 ] || targets=(ies image jsonl engine)
each=$(( seconds / ${#targets[@]} ))
[ "$each" -ge 1 ] || each=1
scripts/setup.sh fuzz

ies_seeds=(tests/data/ies)
for shared in ../shared/data/ies ../../shared/data/ies; do
  if [ -d "$shared" ]; then ies_seeds+=("$shared"); break; fi
done

# Pictures in each format the import reads, written by the tool from a repository profile.
image_seeds=build-fuzz/fuzz-seeds/image
mkdir -p "$image_seeds"
for suffix in png tif exr; do
  [ -f "$image_seeds/profile.$suffix" ] ||
    build-fuzz/bin/kelvo ies preview tests/data/ies/arnold__profile.ies --size 8 \
      -o "$image_seeds/profile.$suffix" > /dev/null
done
cp -f resources/modules/browser/icons/wrong.tif "$image_seeds/"

# Requests: the first byte picks the command (byte % 5: 0 bsdf, 1 ies eval, 2 camera,
# 3 texture sample, 4 intersect), the rest is its stdin.
jsonl_seeds=build-fuzz/fuzz-seeds/jsonl
mkdir -p "$jsonl_seeds"
printf '%s\n' 'P{"op":"new","name":"g","model":"ggxbrdf","data":{"roughness":0.4},"caches":true}' \
  '{"op":"ComputeBSDF","name":"g","wo":[0,0.6,0.8],"wi":[0.6,0,0.8]}' \
  '{"op":"SampleF","name":"g","wo":[0,0.6,0.8],"sample":[0,0.3,0.7]}' \
  '{"op":"D","distribution":"beckmann","data":{"roughness":0.3},"h":[0,0,1]}' \
  '{"op":"cache","kind":0,"index":401800,"count":2}' \
  '{"op":"state","name":"g"}' '{"op":"caches","fresh":true}' > "$jsonl_seeds/bsdf"
printf '%s\n' 'Q[0,0,-1]' '{"direction":[1,0,-1]}' '{"theta":30,"phi":45}' > "$jsonl_seeds/ies"
printf '%s\n' \
  'R{"camera":"main","op":"Init","class":"perspective","parameters":{"net.kelvo.render.camera.cameraparameters.screenresolution":[640,480]}}' \
  '{"camera":"main","op":"CreateScreenRay","point":[640,240]}' \
  '{"camera":"main","op":"WorldToScreen","point":[0,0,-1]}' > "$jsonl_seeds/camera"
printf '%s\n' \
  'S{"op":"sample","mode":"mip","uv":[0.3,0.7],"dudx":0.01,"dvdx":0,"dudy":0,"dvdy":0.01,"wrap":"repeat"}' \
  '{"op":"sample","mode":"sat","uv":[0.5,0.5],"dudx":0.2,"dvdy":0.2,"wrap":"clamp","srgb":true}' \
  > "$jsonl_seeds/texture"
printf '%s\n' 'T{"op":"intersect","origin":[0,0,5],"direction":[0,0,-1],"tmax":100}' \
  > "$jsonl_seeds/intersect"

# Meshes and rays: no seeds beyond an empty input; the number table steers the search.
engine_seeds=build-fuzz/fuzz-seeds/engine
mkdir -p "$engine_seeds"
printf '\x00\x01\x04\x00\x01\x02\x03\x03\x00\x01\x02\x00\x01\x00\x00\x50\x50\x48\x00\x00\x02\x00' \
  > "$engine_seeds/one"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
# What Embree's TBB workers keep until the process ends (the JSON-lines target loads it).
export LSAN_OPTIONS="${LSAN_OPTIONS:-suppressions=$PWD/scripts/lsan.supp}"
for target in "${targets[@]}"; do
  case "$target" in
    ies) options=(-max_len=65536 -dict=fuzz/ies.dict); seeds=("${ies_seeds[@]}") ;;
    image) options=(-max_len=65536); seeds=("$image_seeds" tests/data/ies) ;;
    # LeakSanitizer's thread stopper crashes beside Embree's worker threads (a tool fault,
    # on no input), mid-run and at the process's end: no leak check in these two targets.
    # The ASan build's tests check the same front ends for leaks.
    jsonl) options=(-max_len=4096 -dict=fuzz/jsonl.dict -detect_leaks=0); seeds=("$jsonl_seeds") ;;
    engine) options=(-max_len=2048 -detect_leaks=0); seeds=("$engine_seeds") ;;
    *) echo "fuzz: unknown target '$target' (ies, image, jsonl, engine)" >&2; exit 2 ;;
  esac
  corpus=build-fuzz/fuzz-corpus/$target
  mkdir -p "$corpus"
  echo "fuzz: $target for ${each}s"
  # A unit gets a minute: on a shared, loaded machine a slow unit is starved, not hung.
  # The first folder collects new inputs; the seed folders are only read. Crash inputs go
  # to build-fuzz/ so that the checkout stays clean.
  leaks=$ASAN_OPTIONS
  case "$target" in jsonl|engine) leaks="$ASAN_OPTIONS:detect_leaks=0" ;; esac
  ASAN_OPTIONS="$leaks" "build-fuzz/bin/${target}_fuzzer" -max_total_time="$each" -timeout=60 \
    -rss_limit_mb=2048 "${options[@]}" -print_final_stats=1 -artifact_prefix="build-fuzz/$target-" \
    "$corpus" "${seeds[@]}"
done
