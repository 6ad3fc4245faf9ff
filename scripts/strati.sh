#!/usr/bin/env bash
# Fails when a source includes a header of a layer above its own. The layers, lowest first:
#   core < storage < archive < engine < web < hosts (autonomo, python)
# Tests may reach upward (they drive the whole recorder); the code may not.
set -uo pipefail
cd "$(dirname "$0")/.."
strati=(core storage archive engine web autonomo python)
errori=0
for i in "${!strati[@]}"; do
  sopra=("${strati[@]:i+1}")
  [ ${#sopra[@]} -gt 0 ] || continue
  modello="^#include \"($(IFS='|'; echo "${sopra[*]}"))/"
  while IFS= read -r riga; do
    echo "inclusione verso l'alto: $riga"
    errori=$((errori + 1))
  done < <(find "${strati[i]}" -name '*.h' -o -name '*.cc' | grep -v '_test\.cc$' | sort |
           xargs -r grep -n -E "$modello")
done
# The two hosts sit side by side: neither includes the other.
while IFS= read -r riga; do
  echo "inclusione fra host: $riga"
  errori=$((errori + 1))
done < <(grep -rn -E '^#include "autonomo/' python --include='*.cc' --include='*.h';
         grep -rn -E '^#include "python/' autonomo --include='*.cc' --include='*.h')
if [ "$errori" -gt 0 ]; then
  echo "$errori inclusioni fuori ordine"
  exit 1
fi
echo "strati in ordine"
