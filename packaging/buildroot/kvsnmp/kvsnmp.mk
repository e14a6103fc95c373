################################################################################
#
# kvsnmp
#
# NOT BUILT in this project: no test runs Buildroot; a test only checks the
# options and the version. In an external tree (BR2_EXTERNAL) link this folder as
# package/kvsnmp, source its Config.in and include this file. If the folder is
# outside the source tree, KVSNMP_SITE does not find the sources; name them in
# local.mk:
#   KVSNMP_OVERRIDE_SRCDIR = /path/of/kvsnmp
#
################################################################################

KVSNMP_VERSION = 0.1.0
KVSNMP_SITE = $(KVSNMP_PKGDIR)/../../..
KVSNMP_SITE_METHOD = local
KVSNMP_LICENSE = MIT
KVSNMP_LICENSE_FILES = LICENSE
KVSNMP_DEPENDENCIES = host-pkgconf dbus netsnmp pugixml qt5base

# To use the maker's library, from a separate package, instead of the stand-in:
#   KVSNMP_DEPENDENCIES += xrcommon
#   KVSNMP_CONF_OPTS += -DKVSNMP_XRCOMMON_ROOT=$(STAGING_DIR)/usr
# To serve requests faster, package mimalloc and set the second option to ON.
KVSNMP_CONF_OPTS = -DBUILD_TESTING=OFF -DKVSNMP_MIMALLOC=OFF

# The unit waits for the daemon's reports; without systemd they are not needed.
ifeq ($(BR2_PACKAGE_SYSTEMD),y)
KVSNMP_DEPENDENCIES += systemd
KVSNMP_CONF_OPTS += -DKVSNMP_SYSTEMD=ON
else
KVSNMP_CONF_OPTS += -DKVSNMP_SYSTEMD=OFF
endif

# A device needs neither the simulator nor the monitoring files.
define KVSNMP_INSTALL_TARGET_CMDS
	$(TARGET_MAKE_ENV) DESTDIR=$(TARGET_DIR) $(BR2_CMAKE) \
		--install $(KVSNMP_BUILDDIR) --component runtime
endef

# Only kvsnmp starts snmpd.
define KVSNMP_NO_OTHER_SNMPD
	rm -f $(TARGET_DIR)/etc/init.d/S59snmpd
	rm -f $(TARGET_DIR)/usr/lib/systemd/system/snmpd.service
endef
KVSNMP_TARGET_FINALIZE_HOOKS += KVSNMP_NO_OTHER_SNMPD

define KVSNMP_INSTALL_INIT_SYSV
	ln -sf kvsnmp $(TARGET_DIR)/etc/init.d/S60kvsnmp
endef

$(eval $(cmake-package))
