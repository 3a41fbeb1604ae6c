#!/usr/bin/env bash
# Extracts the project's sample document (samples/PlexaSample.sketch, made by
# samples/make-sample.cpp) into ./sample-output with every stage that can run
# here. Builds what it needs first and shows that build's progress; when all
# is built it goes straight to the extraction without a word.
set -euo pipefail
cd "$(dirname "$0")/.."

say() { echo "run-sample: $*" >&2; }

targets=(plexa-extract plexa-sketchtool)
terminal=0; [ -t 2 ] && terminal=1
columns=$( (tput cols 2>/dev/null || echo 80) )

# Ninja's own lines for "nothing to do" are dropped; the first real line
# announces the build. On a terminal the "[n/m] ..." lines share one line.
show_build() {
  awk -v terminal="$terminal" -v columns="$columns" -v what="${targets[*]}" '
    /Re-checking globbed directories|no work to do|^ninja: Entering directory/ { next }
    !started { print "run-sample: building " what "; a first build takes several minutes" > "/dev/stderr"; started = 1 }
    /^\[[0-9]+\/[0-9]+\]/ && terminal { printf "\r%s\033[K", substr($0, 1, columns - 1) > "/dev/stderr"; fflush("/dev/stderr"); status = 1; next }
    { if (status) printf "\n" > "/dev/stderr"; status = 0; print > "/dev/stderr"; fflush("/dev/stderr") }
    END { if (status) printf "\n" > "/dev/stderr" }'
}

build_targets() {
  mkdir -p build
  exec 9>build/.dev-build.lock
  if ! flock -n 9; then
    say "waiting for another build in ./build to finish"
    flock 9
  fi
  export CCACHE_BASEDIR="$PWD"
  cmake --build build --target "${targets[@]}" 2>&1 | show_build
  local status=${PIPESTATUS[0]}
  exec 9>&-
  return "$status"
}

if [ ! -f build/build.ninja ]; then
  say "first run: installing missing packages and building the whole project; this takes several minutes"
  if ! scripts/setup.sh build; then say "the build failed (see above)"; exit 1; fi
elif ! build_targets; then
  say "the build failed (see above)"; exit 1
fi
rm -rf sample-output
build/plexa-extract samples/PlexaSample.sketch -o sample-output "$@"
ls sample-output
