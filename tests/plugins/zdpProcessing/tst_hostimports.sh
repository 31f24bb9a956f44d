#!/usr/bin/env bash
# tst_hostimports.sh <plug-in> <allowed list> <host library>...
#
# The viewer's own libraries export only the operations nodes are meant to
# use, so a plug-in that imports anything else from our host libraries would
# not load there. Fails, naming each one, on an import the host libraries
# define that the list does not allow. Only symbols the host libraries define
# count, so sanitizer, Qt and C library imports never do.
set -euo pipefail
export LC_ALL=C
plugin="$1" list="$2"
shift 2
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT

# Mangled names without symbol versions.
nm -D --defined-only "$@" | awk 'NF >= 3 { print $3 }' | sed 's/@.*//' | sort -u >"$tmp/defined"
nm -D --undefined-only "$plugin" | awk '{ print $NF }' | sed 's/@.*//' | sort -u >"$tmp/undefined"
comm -12 "$tmp/defined" "$tmp/undefined" | c++filt | sort -u >"$tmp/imported"

# A list line is the symbol, two or more spaces (or a tab), and the reason.
status=0
sep="( {2,}|$(printf '\t'))"
grep -v -E -e '^[[:space:]]*(#|$)' "$list" >"$tmp/lines" || true
if grep -v -E "^[^[:space:]].*${sep}[^[:space:]]" "$tmp/lines" >"$tmp/bad"; then
    sed 's/^/list line without a reason: /' "$tmp/bad"
    status=1
fi
sed -E "s/${sep}.*\$//" "$tmp/lines" | sort >"$tmp/allowed"
if uniq -d "$tmp/allowed" | grep . >"$tmp/bad"; then
    sed 's/^/listed twice: /' "$tmp/bad"
    status=1
fi
sort -u -o "$tmp/allowed" "$tmp/allowed"

if [ ! -s "$tmp/imported" ]; then
    echo "no import from the host libraries found: wrong files?"
    exit 1
fi
comm -23 "$tmp/imported" "$tmp/allowed" >"$tmp/offenders"
comm -13 "$tmp/imported" "$tmp/allowed" | sed 's/^/note: listed but not imported by this build: /'
if [ -s "$tmp/offenders" ]; then
    echo "$(basename "$plugin") imports from the host what the node contract does not offer:"
    sed 's/^/  /' "$tmp/offenders"
    status=1
fi
[ $status -eq 0 ] && echo "$(wc -l <"$tmp/imported") host imports, all listed"
exit $status
