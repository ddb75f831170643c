#!/usr/bin/env bash
# The progress of the README's commands (scripts/steps.sh): each step with its start and its
# time, a build's progress lines and nothing else of its output, and a failing step's status and
# the end of its log.
set -euo pipefail
source "$1/scripts/steps.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fake_build() {
  for p in 10 50 100; do printf '[%3d%%] Building CXX object x%d.o\n' "$p" "$p"; done
  echo "compiler noise"
}
failing() {
  for i in $(seq 1 60); do echo "line $i"; done
  return 3
}

out=$({
  step "build"
  logged "$work/build.log" fake_build
  step "broken"
  logged "$work/broken.log" failing || echo "returned $?"
  steps_done
} 2>&1)

fail() { printf 'steps_test: %s\n--- output:\n%s\n' "$1" "$out"; exit 1; }
has() { grep -qxF -- "$1" <<<"$out" || fail "no line '$1'"; }
# Times as patterns: a busy machine may cross a second boundary anywhere.
has_times() { grep -qxE -- "$1" <<<"$out" || fail "no line matching '$1'"; }
hasnt() { ! grep -qF -- "$1" <<<"$out" || fail "unexpected '$1'"; }

has_times "\[0:[0-9]{2}\] build"
has "  [ 50%] Building CXX object x50.o"
has_times "\[0:[0-9]{2}\] build: done in [0-9]+s"
has_times "\[0:[0-9]{2}\] broken"
has "broken failed (exit status 3); the end of $work/broken.log:"
has "  | line 21"
has "  | line 60"
has "the whole log is $work/broken.log"
has "returned 3"
has_times "\[0:[0-9]{2}\] all done in [0-9]+s"
hasnt "compiler noise"
hasnt "| line 20"
hasnt "broken: done"
[[ $(wc -l <"$work/build.log") -eq 4 ]] || fail "the build log is not whole"
[[ $(steps_duration 75) == 1m15s && $(steps_duration 9) == 9s ]] || fail "durations"
echo "steps_test: 1 passed, 0 failed"
