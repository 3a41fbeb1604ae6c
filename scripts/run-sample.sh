#!/usr/bin/env bash
# Generates the sample document and extracts it into ./sample-output.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build >/dev/null
sample=build/sample/PlexaSample.sketch
build/make-sample "$sample"
build/plexa-extract "$sample" -o sample-output --sketchtool build/tests/fake-sketchtool "$@"
