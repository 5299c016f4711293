#!/bin/sh
# Compiles the product in ways that the ordinary build does not:
# build_test.sh CLAIM SOURCE COMPILER CODEC_LIBRARY. Exit status 77: skipped.
set -eu
claim=$1 source=$2 compiler=$3 codec=$4
unset CXXFLAGS
export LC_ALL=C
box=$(mktemp -d)
trap 'rm -rf "$box"' EXIT
fail() { echo "$claim: $*" >&2; exit 1; }

case $claim in
    command_line)
        # The block of docs/porting.md that begins with $CXX, run as it stands there.
        awk '/^```/ { inside = !inside; wanted = 0; first = 1; next }
            inside && first { wanted = /^\$CXX /; first = 0 }
            inside && wanted' "$source/docs/porting.md" >"$box/command"
        [ -s "$box/command" ] || fail "docs/porting.md has no command that begins with \$CXX"
        for folder in include src platform; do
            ln -s "$source/$folder" "$box/$folder"
        done
        (cd "$box" && CXX=$compiler SYSROOT=/ CODEC=$codec sh -eu ./command) >"$box/log" 2>&1 ||
            fail "$(cat "$box/log")"
        [ ! -s "$box/log" ] || fail "the compiler says: $(cat "$box/log")"
        readelf -d "$box/focus_assist" >"$box/elf"
        for library in libqm7codec.so.2.0 libfreetype.so.6; do
            grep -q "(NEEDED).*\[$library\]" "$box/elf" || fail "does not need $library"
        done
        ! grep -q 'NEEDED.*libstdc' "$box/elf" || fail "needs libstdc++"
        ;;
    freetype)
        # All of this is in FreeType 2.3.0, the oldest version that the product works with.
        cat >"$box/old" <<'END'
FT_Bitmap
FT_BitmapGlyph
FT_Done_Face
FT_Done_FreeType
FT_Done_Glyph
FT_FREETYPE_H
FT_Face
FT_GLYPH_H
FT_Get_Char_Index
FT_Get_Glyph
FT_Glyph
FT_Glyph_To_Bitmap
FT_Init_FreeType
FT_LOAD_DEFAULT
FT_Library
FT_Load_Glyph
FT_Long
FT_New_Face
FT_PIXEL_MODE_MONO
FT_Pos
FT_RENDER_MODE_MONO
FT_Request_Size
FT_SIZE_REQUEST_TYPE_REAL_DIM
FT_Size_RequestRec
FT_UInt
END
        grep -rohw 'FT_[A-Za-z_]*' "$source/src" | sort -u >"$box/used"
        [ "$(wc -l <"$box/used")" -gt 10 ] || fail "found no use of FreeType"
        LC_ALL=C comm -13 "$box/old" "$box/used" >"$box/new"
        [ ! -s "$box/new" ] || fail "not known to be in FreeType 2.3.0: $(cat "$box/new")"
        ;;
    fast_math)
        ! "$compiler" -std=c++11 -ffast-math -fsyntax-only -I "$source/include" -I "$source/src" \
            "$source/src/draw/painter.cpp" >"$box/log" 2>&1 || fail "compiles with -ffast-math"
        grep -q 'error.*-ffast-math moves columns of the bar' "$box/log" || fail "$(cat "$box/log")"
        # The build's own options come after those of the environment and win.
        { CXXFLAGS=-ffast-math cmake -S "$source" -B "$box/build" -G Ninja -D FOCUS_WERROR=ON \
            -D CMAKE_CXX_COMPILER="$compiler" -D FOCUS_BUILD_SIMCAM=OFF -D FOCUS_BUILD_TESTS=OFF &&
            cmake --build "$box/build" --target focus_core; } >"$box/log" 2>&1 || fail "$(cat "$box/log")"
        ;;
    musl)
        # musl's headers in place of glibc's, below the compiler's own for C++. These test the version
        # of glibc, which musl does not have.
        musl=$(find /usr/include -maxdepth 1 -name '*-linux-musl' | head -n 1)
        [ -n "$musl" ] || { echo "skipped: the package musl-dev is not installed"; exit 77; }
        set -- -nostdinc -nostdinc++ '-D__GLIBC_PREREQ(a,b)=0'
        for folder in $("$compiler" -x c++ -E -v /dev/null 2>&1 |
            sed -n '/search starts here/,/^End/s/^ //p'); do
            case $folder in
                */c++/* | */lib/gcc/*/include | */lib/clang/*/include) set -- "$@" -isystem "$folder" ;;
            esac
        done
        set -- "$@" -isystem "$musl" -isystem /usr/include/freetype2
        for file in "$source"/src/*.cpp "$source"/src/*/*.cpp "$source/platform/cgi/cgi_set_pid.cpp"; do
            "$compiler" -std=c++11 -pedantic-errors -Werror -Wall -Wextra -Wconversion \
                -Wsign-conversion -Wshadow -Wformat=2 -Wundef "$@" -D FOCUS_VERSION='""' \
                -I "$source/include" -I "$source/src" -fsyntax-only "$file"
        done
        ;;
    *) fail "no such claim" ;;
esac
