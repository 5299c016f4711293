#!/bin/sh
# Prints the newest version of the changelog $1 in Debian's format, by the contact $2.
set -eu
heading=$(grep -m 1 '^## [0-9]' "$1")
version=${heading#\#\# }
date=${version##* }
echo "focus-assist (${version%% *}) unstable; urgency=medium"
echo
awk '
    function flush(    words, n, i, line) { # wraps the text
        n = split(text, words, " ")
        line = mark
        for (i = 1; i <= n; i++) {
            if (length(line) + length(words[i]) > 78) {
                print line
                line = "   "
            }
            line = line " " words[i]
        }
        if (n) print line
        text = ""
    }
    /^## [0-9]/ && ++versions > 1 { exit }
    /^## / { inside = 1; next }
    !inside || /^$/ { next }
    /^- / { flush(); mark = "  *"; text = substr($0, 3); next }
    /^ / { text = text $0; next }
    { flush(); print "  [ " $0 " ]" }
    END { flush() }' "$1"
echo
echo " -- $2  $(LC_ALL=C date -u -R -d "$date")"
