# Steps of the README's commands, as a person watching them sees them: what step runs, since
# when, and how long each took; the build's own progress instead of silence; and, when a step
# fails, the end of its log. Sourced by scripts/demo and scripts/check; writes to standard error.
#
#   step "configure build/check"           ends the step before, begins this one
#   logged LOG COMMAND...                  runs COMMAND with its output in LOG, showing progress
#   steps_done                             ends the last step and prints the total time

steps_began=$SECONDS
step_title=""
step_began=0

# 75 -> "1m15s"
steps_duration() {
  local s=$1
  if ((s >= 60)); then printf '%dm%02ds' $((s / 60)) $((s % 60)); else printf '%ds' "$s"; fi
}

steps_clock() {
  local s=$((SECONDS - steps_began))
  printf '%d:%02d' $((s / 60)) $((s % 60))
}

step() {
  step_end
  step_title=$1
  step_began=$SECONDS
  printf '[%s] %s\n' "$(steps_clock)" "$step_title" >&2
}

step_end() {
  [[ -n $step_title ]] || return 0
  printf '[%s] %s: done in %s\n' "$(steps_clock)" "$step_title" \
    "$(steps_duration $((SECONDS - step_began)))" >&2
  step_title=""
}

steps_done() {
  step_end
  printf '[%s] all done in %s\n' "$(steps_clock)" "$(steps_duration $((SECONDS - steps_began)))" >&2
}

# Shows the progress lines of a build ("[ 42%] Building CXX object ..."): on a terminal as one
# line that is rewritten, elsewhere line by line. Everything else only goes to the log.
steps_progress() {
  local line width=${COLUMNS:-100} shown=0
  if [[ -t 2 ]]; then
    while IFS= read -r line; do
      [[ $line =~ ^\[\ *[0-9]+%\] ]] || continue
      printf '\r\033[K  %s' "${line:0:width-3}" >&2
      shown=1
    done
    ((shown)) && printf '\r\033[K' >&2
  else
    while IFS= read -r line; do
      [[ $line =~ ^\[\ *[0-9]+%\] ]] && printf '  %s\n' "$line" >&2
    done
  fi
  return 0
}

# Runs COMMAND with standard output and error appended to LOG, showing its build progress; on
# failure prints the last 40 lines of LOG and where the whole of it is, and returns its status.
logged() {
  local log=$1 status errexit=0
  shift
  mkdir -p "$(dirname "$log")"
  : >"$log"
  [[ $- == *e* ]] && errexit=1
  set +e
  "$@" 2>&1 | tee -a "$log" | steps_progress
  status=${PIPESTATUS[0]}
  ((errexit)) && set -e
  if ((status != 0)); then
    printf '%s failed (exit status %d); the end of %s:\n' "${step_title:-$1}" "$status" "$log" >&2
    tail -n 40 "$log" | sed 's/^/  | /' >&2
    printf 'the whole log is %s\n' "$log" >&2
    step_title=""  # failed, not done
  fi
  return "$status"
}
