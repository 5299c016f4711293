SUMMARY = "Focus-assist overlay of an embedded camera"
DESCRIPTION = "Draws a sharpness bar and a line of numbers over the live video while an operator \
turns the lens."
SECTION = "multimedia"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=f7f91550c717c65dcdc91f62f1630910"

inherit cmake python3native systemd update-rc.d externalsrc

# The sources are those that contain this layer; the version is the newest in their changelog.
EXTERNALSRC = "${FOCUS_ASSIST_LAYER}/../.."
EXTERNALSRC_BUILD = "${WORKDIR}/build"
PV = "${@focus_assist_version(d)}"

def focus_assist_version(d):
    import os
    import re
    path = os.path.join(d.getVar('FOCUS_ASSIST_LAYER'), '../../CHANGELOG.md')
    with open(path) as changelog:
        return re.search(r'^## (\d+\.\d+\.\d+)', changelog.read(), re.MULTILINE).group(1)

COMPATIBLE_HOST = "arm.*-linux-gnueabi"
DEPENDS = "freetype"

# A camera's recipe names its libraries here and adds their recipes to DEPENDS.
FOCUS_CODEC_LIBRARY ?= "${STAGING_LIBDIR}/libqm7codec.so.2.0"
FOCUS_CGI_LIBRARY ?= ""
# Empty: the camera has the font already, at /usr/local/morvel/import/font/dejavu/font.
FOCUS_FONT ?= ""
FOCUS_FONT_LICENSE ?= ""

# /usr/local holds the fixed paths of the program; the executable goes beside them.
EXTRA_OECMAKE = " \
    -DCMAKE_INSTALL_PREFIX:PATH=/usr/local \
    -DCMAKE_INSTALL_BINDIR:PATH=bin \
    -DFOCUS_BUILD_SIMCAM=OFF \
    -DFOCUS_BUILD_TESTS=OFF \
    -DFOCUS_SYSTEMD_UNIT_DIR=${systemd_system_unitdir} \
    -DFOCUS_CODEC_LIBRARY=${FOCUS_CODEC_LIBRARY} \
    -DFOCUS_CGI_LIBRARY=${FOCUS_CGI_LIBRARY} \
    -DFOCUS_FONT=${FOCUS_FONT} \
    -DFOCUS_FONT_LICENSE=${FOCUS_FONT_LICENSE} \
"

do_install:append() {
    if ${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'true', 'false', d)}; then
        DESTDIR=${D} cmake --install ${B} --component systemd
    else
        DESTDIR=${D} cmake --install ${B} --component busybox
        mv ${D}/etc/init.d/S80focus_assist ${D}/etc/init.d/focus_assist
    fi
}

SYSTEMD_SERVICE:${PN} = "focus-assist.service"
INITSCRIPT_NAME = "focus_assist"
INITSCRIPT_PARAMS = "defaults 80"

FILES:${PN} += "/usr/local/bin /usr/local/morvel ${systemd_system_unitdir}"
# The camera maker supplies the codec library; no package declares it.
INSANE_SKIP:${PN} += "file-rdeps"
