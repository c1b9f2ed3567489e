#!/usr/bin/env bash
# Shows the whole road on a fresh machine: installs packages, builds, indexes text that any Debian
# system holds, answers questions about it, and prints every command that it runs.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
echo "building ..."
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target sdb_tool | tail -n 1

sdb=build/release/tools/sdb
root=build/demo
answer=build/demo.answer
answer_lines=24
rm -rf "$root"

# Prints a command, runs it, and shows the beginning of its answer.
run() {
  printf '\n$ sdb'
  local shown=0 word
  for word in "$@"; do
    if [ "$((shown += 1))" -gt 8 ]; then
      printf ' ... (%d arguments)' "$#"
      break
    fi
    printf ' %q' "$word"
  done
  printf '\n'
  local status=0
  "$sdb" "$@" >"$answer" || status=$?
  head -n "$answer_lines" "$answer"
  local more=$(($(wc -l <"$answer") - answer_lines))
  [ "$more" -le 0 ] || echo "    ... ($more more lines)"
  [ "$status" -eq 0 ] || echo "(ended with $status)"
}

texts=()
for path in /usr/share/common-licenses /usr/share/doc/*/copyright; do
  [ -e "$path" ] && texts+=("$path")
done
[ "${#texts[@]}" -gt 0 ] || texts=(/usr/include)

run create "$root" texts
run list "$root"
run index "$root" texts "${texts[@]}"
run search "$root" texts merchantability warranty software --limit 2
run search "$root" texts --any zlib bzip2 --limit 3
run search "$root" texts zyxwvutsrqp
run index "$root" texts "${texts[@]}"
run stat "$root" texts --json

echo
echo "The database lies in $root; ask it more with: $sdb search $root texts WORD..."
