#!/bin/sh
# What is installed and packaged: files_test.sh CLAIM SOURCE BUILD VERSION ARCHITECTURE.
# Exit status 77: skipped.
set -eu
claim=$1 source=$2 build=$3 version=$4 architecture=$5

box=$(mktemp -d)
trap 'rm -rf "$box"' EXIT
fail() { echo "$claim: $*" >&2; exit 1; }
need() { command -v "$1" >/dev/null || { echo "skipped: $1 is not installed"; exit 77; }; }
same() { [ "$1" = "$2" ] || fail "there is:
$1
wanted:
$2"; }
files() { (cd "$1" && find . ! -type d | sort); }

# The paths that the program has built in, and the executable.
camera_files="./usr/local/bin/focus_assist
./usr/local/morvel/app/conf/data/osd/osd_def_color.plt
./usr/local/morvel/import/font/dejavu/LICENSE
./usr/local/morvel/import/font/dejavu/font/DejaVuSansMono.ttf"
unit_files="./usr/lib/systemd/system/focus-assist.service
./usr/lib/udev/rules.d/70-focus-assist.rules"
license_file=./usr/share/doc/focus-assist/copyright

case $claim in
    layout)
        DESTDIR=$box/stage cmake --install "$build" >"$box/log"
        same "$(files "$box/stage")" "$camera_files"
        cmp "$box/stage/usr/local/morvel/app/conf/data/osd/osd_def_color.plt" \
            "$build/data/osd_def_color.plt"
        font=$box/stage/usr/local/morvel/import/font/dejavu
        [ "$(od -A n -t x1 -N 4 "$font/font/DejaVuSansMono.ttf" | tr -d ' ')" = 00010000 ] ||
            fail "the font is not a TrueType file"
        grep -q "Bitstream Vera" "$font/LICENSE" || fail "the license is not that of the font"
        ! LC_ALL=C grep -q "$build" "$box/stage/usr/local/bin/focus_assist" ||
            fail "the executable names the build folder"
        DESTDIR=$box/busybox cmake --install "$build" --component busybox >"$box/log"
        same "$(files "$box/busybox")" ./etc/init.d/S80focus_assist
        [ -x "$box/busybox/etc/init.d/S80focus_assist" ] || fail "the init script cannot be run"
        DESTDIR=$box/systemd cmake --install "$build" --component systemd >"$box/log"
        same "$(files "$box/systemd")" "$unit_files"
        DESTDIR=$box/license cmake --install "$build" --component license >"$box/log"
        same "$(files "$box/license")" "$license_file"
        ;;
    unit_folder)
        cmake -S "$source" -B "$box/build" -G Ninja -D FOCUS_BUILD_SIMCAM=OFF -D FOCUS_BUILD_TESTS=OFF \
            -D FOCUS_SYSTEMD_UNIT_DIR=/lib/systemd/system >"$box/log" 2>&1 || fail "$(cat "$box/log")"
        DESTDIR=$box/systemd cmake --install "$box/build" --component systemd >"$box/log"
        same "$(files "$box/systemd")" "$(echo "$unit_files" | sed 's,^./usr/,./,')"
        ;;
    prefix)
        cmake --install "$build" --prefix "$box/elsewhere" >"$box/log"
        same "$(files "$box/elsewhere" | sed 's,^\./,./usr/local/,')" "$camera_files"
        ;;
    packages)
        need dpkg-deb
        need lintian
        (cd "$build" && cpack -B "$box/packages") >"$box/log" || fail "$(cat "$box/log")"
        deb=$(echo "$box"/packages/focus-assist-"$version"-*.deb)
        archive=$(echo "$box"/packages/focus-assist-"$version"-*.tar.gz)
        [ "$architecture" != native ] || architecture=$(dpkg --print-architecture)
        same "$(dpkg-deb -f "$deb" Package Version Architecture)" "Package: focus-assist
Version: $version
Architecture: $architecture"
        # Every library that the executable asks for comes with a package that is asked for.
        dpkg-deb -x "$deb" "$box/deb"
        glibc=$(LC_ALL=C readelf -V "$box/deb/usr/local/bin/focus_assist" |
            grep -o 'GLIBC_[0-9.]*' | cut -d_ -f2 | sort -V | tail -n 1)
        needed="libc6 (>= $glibc), libfreetype6 (>= 2.3.0)"
        case $architecture in arm*) needed="$needed, libgcc-s1 (>= 3.5)" ;; esac
        same "$(dpkg-deb -f "$deb" Depends)" "$needed"
        dpkg-deb -e "$deb" "$box/control"
        for script in postinst prerm postrm; do
            [ -x "$box/control/$script" ] || fail "$script is missing or not executable"
            sh -n "$box/control/$script"
        done
        grep -qx "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt" "$box/control/conffiles" ||
            fail "an upgrade would overwrite a changed palette"
        [ "$(dpkg-deb -f "$deb" Description | wc -l)" -gt 1 ] || fail "no description"
        for library in $(LC_ALL=C readelf -d "$box/deb/usr/local/bin/focus_assist" |
            sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
            case $library in
                libqm7codec.so.2.0) ;; # the camera's own
                libc.so.6 | libfreetype.so.6) ;;
                libgcc_s.so.1) case $needed in *libgcc-s1*) ;; *) fail "$library" ;; esac ;;
                *) fail "no package for $library" ;;
            esac
        done
        same "$(files "$box/deb")" "$(printf '%s\n' "$unit_files" "$camera_files" "$license_file" \
            ./usr/share/doc/focus-assist/changelog.gz ./usr/share/lintian/overrides/focus-assist | sort)"
        cmp "$box/deb/$license_file" "$source/LICENSE"
        [ "$architecture" = armel ] || same "$(lintian --allow-root "$deb" 2>&1)" ""
        mkdir "$box/archive"
        tar xzf "$archive" -C "$box/archive"
        same "$(files "$box/archive")" "./etc/init.d/S80focus_assist
$camera_files
$license_file"
        ;;
    version)
        need strings
        heading=$(sed -n '/^## [0-9]/{s/^## \([0-9.]*\).*/\1/p;q}' "$source/CHANGELOG.md")
        same "$heading" "$version"
        DESTDIR=$box/stage cmake --install "$build" --strip >"$box/log"
        strings "$box/stage/usr/local/bin/focus_assist" | grep -qx "focus_assist $version" ||
            fail "the stripped executable does not tell its version"
        ;;
    buildroot)
        need make
        # What Buildroot gives to a package file, as far as this one uses it.
        cat >"$box/Makefile" <<'END'
qstrip = $(strip $(subst ",,$(1)))
BR2_PACKAGE_FOCUS_ASSIST_CODEC_LIBRARY = "/stage/libqm7codec.so.2.0"
BR2_PACKAGE_FOCUS_ASSIST_FONT = "/fonts/DejaVuSansMono.ttf"
cmake-package = $(info is a cmake-package)
include $(BR2_EXTERNAL_FOCUS_ASSIST_PATH)/external.mk
all:
	@echo "$(FOCUS_ASSIST_VERSION)"
	@echo "$(FOCUS_ASSIST_LICENSE) $(FOCUS_ASSIST_LICENSE_FILES)"
	@echo "$(FOCUS_ASSIST_SITE)"
	@echo "$(FOCUS_ASSIST_CONF_OPTS)"
	@echo "$(FOCUS_ASSIST_DEPENDENCIES)"
END
        ln -s "$source" "$box/source" # make includes no path with a space
        make -s -f "$box/Makefile" BR2_EXTERNAL_FOCUS_ASSIST_PATH="$box/source/packaging/buildroot" \
            >"$box/said" 2>&1 || fail "$(cat "$box/said")"
        grep -qx "is a cmake-package" "$box/said" || fail "not evaluated: $(cat "$box/said")"
        grep -qx "MIT LICENSE" "$box/said" || fail "license: $(cat "$box/said")"
        grep -qx "$version" "$box/said" || fail "version: $(cat "$box/said")"
        grep -qx "$(realpath "$source")" "$box/said" || fail "site: $(cat "$box/said")"
        grep -q -- "-DFOCUS_CODEC_LIBRARY=/stage/libqm7codec.so.2.0 " "$box/said" ||
            fail "options: $(cat "$box/said")"
        grep -qw host-python3 "$box/said" || fail "the color table needs Python: $(cat "$box/said")"
        ;;
    openembedded)
        layer=$source/packaging/openembedded
        recipe=$layer/recipes-multimedia/focus-assist/focus-assist.bb
        # Every option that a recipe passes exists, and every file of the layout is packaged.
        # shellcheck disable=SC2013 # no option holds a blank
        for option in $(cat "$recipe" "$source"/packaging/buildroot/package/*/*.mk |
            grep -o 'DFOCUS_[A-Z_]*' | sed 's/^D//' | sort -u); do
            grep -rqw "$option" "$source/CMakeLists.txt" "$source/packaging/CMakeLists.txt" ||
                fail "no option $option"
        done
        # shellcheck disable=SC2016 # the recipe's own variable
        for folder in /usr/local/bin /usr/local/morvel '${systemd_system_unitdir}'; do
            grep "^FILES:" "$recipe" | grep -qF "$folder" || fail "$folder is in no package"
        done
        # shellcheck disable=SC2016
        grep -qF -- '-DFOCUS_SYSTEMD_UNIT_DIR=${systemd_system_unitdir} ' "$recipe" ||
            fail "the unit goes elsewhere than the recipe packages"
        # The color table is packed with the Python of the building machine.
        grep -q '^inherit .*\<python3native\>' "$recipe" || fail "the recipe lacks Python"
        grep -qx 'LICENSE = "MIT"' "$recipe" || fail "the recipe does not name the license"
        sum=$(md5sum <"$source/LICENSE" | cut -d ' ' -f 1)
        grep -qx "LIC_FILES_CHKSUM = \"file://LICENSE;md5=$sum\"" "$recipe" ||
            fail "the recipe has not the checksum of LICENSE, $sum"
        sed -n '/^def focus_assist_version/,/^$/p' "$recipe" >"$box/version.py"
        cat >>"$box/version.py" <<'END'
import sys
class Data:
    def getVar(self, name):
        return {'FOCUS_ASSIST_LAYER': sys.argv[1]}[name]
print(focus_assist_version(Data()))
END
        same "$(python3 "$box/version.py" "$layer")" "$version"
        ;;
    *) fail "no such claim" ;;
esac
