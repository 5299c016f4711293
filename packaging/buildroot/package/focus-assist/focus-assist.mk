################################################################################
#
# focus-assist
#
################################################################################

FOCUS_ASSIST_SITE = $(realpath $(BR2_EXTERNAL_FOCUS_ASSIST_PATH)/../..)
FOCUS_ASSIST_SITE_METHOD = local
FOCUS_ASSIST_VERSION = $(shell sed -n '/^\#\# [0-9]/{s/^\#\# \([0-9.]*\).*/\1/p;q}' \
	'$(FOCUS_ASSIST_SITE)/CHANGELOG.md')
FOCUS_ASSIST_LICENSE = MIT
FOCUS_ASSIST_LICENSE_FILES = LICENSE
FOCUS_ASSIST_DEPENDENCIES = freetype host-python3
FOCUS_ASSIST_SUPPORTS_IN_SOURCE_BUILD = NO

# /usr/local holds the fixed paths of the program; the executable goes beside them.
FOCUS_ASSIST_CONF_OPTS = \
	-DCMAKE_INSTALL_PREFIX=/usr/local \
	-DFOCUS_BUILD_SIMCAM=OFF \
	-DFOCUS_BUILD_TESTS=OFF \
	-DFOCUS_CODEC_LIBRARY=$(call qstrip,$(BR2_PACKAGE_FOCUS_ASSIST_CODEC_LIBRARY)) \
	-DFOCUS_CGI_LIBRARY=$(call qstrip,$(BR2_PACKAGE_FOCUS_ASSIST_CGI_LIBRARY)) \
	-DFOCUS_FONT=$(call qstrip,$(BR2_PACKAGE_FOCUS_ASSIST_FONT)) \
	-DFOCUS_FONT_LICENSE=$(call qstrip,$(BR2_PACKAGE_FOCUS_ASSIST_FONT_LICENSE))

define FOCUS_ASSIST_INSTALL_INIT_SYSV
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(FOCUS_ASSIST_BUILDDIR) --component busybox
endef

define FOCUS_ASSIST_INSTALL_INIT_SYSTEMD
	DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) --install $(FOCUS_ASSIST_BUILDDIR) --component systemd
endef

$(eval $(cmake-package))
