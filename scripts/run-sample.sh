#!/usr/bin/env bash
# Extracts the project's sample document (samples/PlexaSample.sketch, made by
# samples/make-sample.cpp) into ./sample-output with every stage that can run
# here. Artboard images and layer assets need Sketch's sketchtool: set
# sketchToolPath or put sketchtool on PATH; without it those stages say so and
# the rest of the run goes on.
set -euo pipefail
cd "$(dirname "$0")/.."
log="$(mktemp)"
if ! scripts/setup.sh build >"$log" 2>&1; then cat "$log"; rm -f "$log"; exit 1; fi
rm -f "$log"
rm -rf sample-output
build/plexa-extract samples/PlexaSample.sketch -o sample-output "$@"
ls sample-output
