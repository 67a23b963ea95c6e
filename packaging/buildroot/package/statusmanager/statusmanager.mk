################################################################################
#
# statusmanager
#
################################################################################

STATUSMANAGER_VERSION = 1.0.0
STATUSMANAGER_SITE = $(call qstrip,$(BR2_PACKAGE_STATUSMANAGER_SITE))
ifeq ($(STATUSMANAGER_SITE),)
# The checkout that this file is part of, as it is now, without what was built in it.
STATUSMANAGER_SITE = $(abspath $(BR2_EXTERNAL_STATUSMANAGER_PATH)/../..)
STATUSMANAGER_SITE_METHOD = local
STATUSMANAGER_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build --exclude=/.cache
else
STATUSMANAGER_VERSION = $(call qstrip,$(BR2_PACKAGE_STATUSMANAGER_REVISION))
STATUSMANAGER_SITE_METHOD = git
endif
STATUSMANAGER_LICENSE = MIT
STATUSMANAGER_LICENSE_FILES = LICENSE
STATUSMANAGER_INSTALL_STAGING = YES
STATUSMANAGER_DEPENDENCIES = host-pkgconf zeromq jsoncpp json-for-modern-cpp
# The tests want the network ports of a developer's machine.
STATUSMANAGER_CONF_OPTS = \
	-DSTATUSMANAGER_BUILD_TESTS=OFF \
	-DSTATUSMANAGER_BUILD_EXAMPLES=OFF \
	-DCMAKE_SKIP_INSTALL_RPATH=ON

ifeq ($(BR2_PACKAGE_STATUSMANAGER_BROKER),y)
STATUSMANAGER_CONF_OPTS += -DSTATUSMANAGER_BUILD_BROKER=ON
STATUSMANAGER_DEPENDENCIES += cli11 sqlite tomlplusplus

define STATUSMANAGER_BROKER_USER
	statusbroker -1 statusbroker -1 * - - - Status broker
endef

# The unit, its user file and its pause are installed with the program.
define STATUSMANAGER_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/sysvinit/statusbroker \
		$(TARGET_DIR)/etc/init.d/S50statusbroker
	rm -f $(TARGET_DIR)/usr/lib/systemd/system/statusbridge.service \
		$(TARGET_DIR)/usr/lib/sysusers.d/statusbridge.conf \
		$(TARGET_DIR)/usr/lib/systemd/system/statusbroker.service \
		$(TARGET_DIR)/usr/lib/sysusers.d/statusbroker.conf \
		$(TARGET_DIR)/usr/share/statusbroker/allow-set-time.conf \
		$(TARGET_DIR)/usr/share/statusbroker/early-boot.conf \
		$(TARGET_DIR)/usr/share/statusbroker/persist.conf \
		$(TARGET_DIR)/usr/libexec/statusbroker/pause-before-restart
endef
else
STATUSMANAGER_CONF_OPTS += -DSTATUSMANAGER_BUILD_BROKER=OFF
endif

ifeq ($(BR2_PACKAGE_STATUSMANAGER_BRIDGE),y)
STATUSMANAGER_CONF_OPTS += -DSTATUSMANAGER_BUILD_BRIDGE=ON
STATUSMANAGER_DEPENDENCIES += cppzmq mosquitto sqlite

define STATUSMANAGER_BRIDGE_USER
	statusbridge -1 statusbridge -1 * - - - Status bridge
endef
else
STATUSMANAGER_CONF_OPTS += -DSTATUSMANAGER_BUILD_BRIDGE=OFF
endif

ifeq ($(BR2_PACKAGE_STATUSMANAGER_FLEET),y)
STATUSMANAGER_CONF_OPTS += -DSTATUSMANAGER_BUILD_FLEET=ON
STATUSMANAGER_DEPENDENCIES += cli11 mosquitto sqlite
else
STATUSMANAGER_CONF_OPTS += -DSTATUSMANAGER_BUILD_FLEET=OFF
endif

define STATUSMANAGER_USERS
$(STATUSMANAGER_BROKER_USER)
$(STATUSMANAGER_BRIDGE_USER)
endef

ifeq ($(BR2_PACKAGE_STATUSMANAGER_TOOL),y)
STATUSMANAGER_CONF_OPTS += -DSTATUSMANAGER_BUILD_TOOL=ON
STATUSMANAGER_DEPENDENCIES += cppzmq cli11 ncurses
else
STATUSMANAGER_CONF_OPTS += -DSTATUSMANAGER_BUILD_TOOL=OFF
endif

$(eval $(cmake-package))
