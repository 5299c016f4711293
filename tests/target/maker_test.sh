#!/bin/sh
# Builds the product as an integrator does, with a maker's compiler, sysroot and libraries:
# maker_test.sh SOURCE PREFIX SYSROOT ARCHITECTURE. The maker's two libraries are small ones made
# here. The sysroot is unpacked first where it is not there. Exit status 77: skipped.
set -eu
source=$1 prefix=$2 sysroot=$3 architecture=$4
unset CXXFLAGS # those of the build that asks are for another processor

command -v "${prefix}g++" >/dev/null || { echo "skipped: ${prefix}g++ is not installed"; exit 77; }
"$source/scripts/sysroot" "$sysroot" "$architecture"
box=$(mktemp -d)
trap 'rm -rf "$box"' EXIT
fail() { echo "$architecture: $*" >&2; exit 1; }
flags=
[ "$architecture" != armel ] || flags="-march=armv7-a -mfloat-abi=softfp -mfpu=vfpv3"

# Every function that the product asks a codec library for.
sed -n 's/^int32_t \(qm7_cl_[a-z_]*\)(.*/extern "C" int \1(void) { return -1; }/p' \
    "$source/src/osd/qm7_codec.h" >"$box/codec.cpp"
[ "$(wc -l <"$box/codec.cpp")" -eq 14 ] || fail "functions of the codec library: $(cat "$box/codec.cpp")"
echo 'extern "C" int cgi_set_pid(const char *path) { return path != 0; }' >"$box/cgi.cpp"
# Both use functions of other libraries that they are not linked with, as makers' libraries do.
for library in codec cgi; do
    echo "extern \"C\" int maker_private(); int use_$library() { return maker_private(); }" \
        >>"$box/$library.cpp"
done
for library in codec:libqm7codec.so.2.0 cgi:libcgi.so; do
    "${prefix}g++" --sysroot="$sysroot" -shared -fPIC "-Wl,-soname,${library#*:}" \
        -o "$box/${library#*:}" "$box/${library%%:*}.cpp"
done

{
    cmake -S "$source" -B "$box/build" -G Ninja -D CMAKE_TOOLCHAIN_FILE="$source/cmake/maker.cmake" \
        -D CMAKE_BUILD_TYPE=MinSizeRel -D FOCUS_WERROR=ON \
        -D FOCUS_CROSS_PREFIX="$prefix" -D FOCUS_SYSROOT="$sysroot" -D FOCUS_TARGET_FLAGS="$flags" \
        -D FOCUS_CODEC_LIBRARY="$box/libqm7codec.so.2.0" -D FOCUS_CGI_LIBRARY="$box/libcgi.so"
    cmake --build "$box/build"
    DESTDIR="$box/stage" cmake --install "$box/build"
} >"$box/log" 2>&1 || fail "$(cat "$box/log")"

program=$box/stage/usr/local/bin/focus_assist
"${prefix}readelf" -h -d "$program" >"$box/elf"
for library in libqm7codec.so.2.0 libcgi.so libfreetype.so.6; do
    grep -q "(NEEDED).*\[$library\]" "$box/elf" || fail "does not need $library: $(cat "$box/elf")"
done
! grep -Eq '\((RPATH|RUNPATH)\)' "$box/elf" || fail "has a run path: $(cat "$box/elf")"
case $architecture in
    armhf) grep -q 'hard-float ABI' "$box/elf" || fail "is not hard-float: $(cat "$box/elf")" ;;
    armel)
        grep -q 'soft-float ABI' "$box/elf" || fail "is not soft-float: $(cat "$box/elf")"
        "${prefix}readelf" -A "$program" >"$box/attributes" # the flags make it a later processor's
        grep -qx ' *Tag_CPU_arch: v7' "$box/attributes" || fail "is not of the flags: $(cat "$box/attributes")"
        ;;
esac
[ -f "$box/stage/usr/local/morvel/app/conf/data/osd/osd_def_color.plt" ] || fail "no color table"
