#!/usr/bin/env bash
# Builds the Debian packages, installs them with dpkg -i and uses them as an administrator and a
# developer would: the tool with its manual page, completion and tmpfiles.d drop-in; a program
# built against the -dev package with find_package and with pkg-config; the libraries in
# ldconfig's cache. Then purges them and checks that no file of theirs is left. Exits 77
# (skipped) with the reason where it cannot run.
#
#   package_test.sh SOURCE_DIR WORK_DIR
set -euo pipefail
source_dir=$1
work=$2
packages=(libtelobackup-util0 libtelobackup-platform0 libtelobackup-util-dev telobackup-util)

skip() {
  echo "SKIPPED: $*"
  exit 77
}
fail() {
  echo "FAILED: $*" >&2
  exit 1
}

[[ $(id -u) -eq 0 ]] || skip "installing packages with dpkg -i needs root"
for tool in dpkg-buildpackage dh dpkg-deb cmake pkg-config c++ flock ldconfig; do
  command -v "$tool" >/dev/null || skip "$tool is not installed (scripts/install-deps installs it)"
done

# One run at a time per machine: another checkout's run installs and purges the same packages.
mkdir -p /run/lock
exec 9>/run/lock/telobackup-package-test.lock
flock -w 1200 9 || fail "another package test held the lock for 20 minutes"
status() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null || true; }
for package in "${packages[@]}"; do
  if [[ -n $(status "$package") && $(status "$package") != *" not-installed" ]]; then
    skip "$package is already on this machine; the test neither replaces nor purges it"
  fi
done

rm -rf "$work"
mkdir -p "$work"
PACKAGE_DIR="$work/packages" "$source_dir/scripts/package" --no-lint
debs=()
for package in "${packages[@]}"; do debs+=("$work"/packages/"$package"_*.deb); done
# Every file and link the packages put on the machine (directories are shared with others).
mapfile -t owned < <(for deb in "${debs[@]}"; do
  dpkg-deb --fsys-tarfile "$deb" | tar -t | sed -e 's|^\./|/|' -e '/\/$/d'
done | sort -u)

purge() { dpkg --purge "${packages[@]}" >/dev/null 2>&1 || true; }
trap purge EXIT
dpkg -i "${debs[@]}" >/dev/null

echo "== the tool"
telobackup-util --version
[[ $(printf '/a/b.tmp\n/a/c\n' | telobackup-util filter --exclude '/**/*.tmp') == /a/c ]] ||
  fail "telobackup-util filter gave the wrong answer"
for file in /usr/share/man/man1/telobackup-util.1.gz \
  /usr/share/bash-completion/completions/telobackup-util /usr/lib/tmpfiles.d/telobackup.conf; do
  [[ -f $file ]] || fail "$file is not installed"
done

echo "== ldconfig"
# Outputs are read whole before grep -q looks at them: grep leaving early would kill the writer
# with SIGPIPE, which pipefail reports as a failure.
cache=$(ldconfig -p)
for library in libtelobackup-util.so.0 libtelobackup-platform.so.0; do
  grep -q "^[[:space:]]*$library " <<<"$cache" || fail "ldconfig -p does not list $library"
done

echo "== a program built against the installed development package"
cmake -S "$source_dir/tests/install/consumer" -B "$work/consumer" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer" || fail "the find_package consumer failed"
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/tests/install/consumer/main.cpp" \
  $(pkg-config --cflags --libs telobackup-util) -o "$work/pkg-consumer"
"$work/pkg-consumer" || fail "the pkg-config consumer failed"
grep -Eq "libtelobackup-util.so.0 => (/usr)?/lib/" <<<"$(ldd "$work/pkg-consumer")" ||
  fail "the consumer does not load the installed library"

echo "== purge"
dpkg --purge "${packages[@]}" >/dev/null
trap - EXIT
for package in "${packages[@]}"; do
  if [[ -n $(status "$package") && $(status "$package") != *" not-installed" ]]; then
    fail "$package is still known to dpkg: $(status "$package")"
  fi
done
for file in "${owned[@]}"; do
  if [[ -e $file || -L $file ]]; then fail "$file is left after the purge"; fi
done
if grep -q telobackup <<<"$(ldconfig -p)"; then fail "ldconfig still lists a library of ours"; fi
echo "packages built, installed, used and purged: ${#owned[@]} files, none left"
