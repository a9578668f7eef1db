################################################################################
#
# kiv-drivers
#
################################################################################

KIV_DRIVERS_VERSION = 1.0.0
KIV_DRIVERS_SITE = $(BR2_EXTERNAL_KIV_PATH)/package/kiv-drivers
KIV_DRIVERS_SITE_METHOD = file
KIV_DRIVERS_INSTALL_STAGING = YES
KIV_DRIVERS_DEPENDENCIES = host-pkgconf

KIV_DRIVERS_CONF_OPTS = \
	-DBUILD_TESTING=OFF \
	-DKIV_SIM=OFF \
	-DKIV_EXAMPLES=OFF \
	-DCMAKE_SKIP_INSTALL_RPATH=ON

ifeq ($(BR2_PACKAGE_KIV_DRIVERS_EXTERNAL_CORE),y)
KIV_DRIVERS_CONF_OPTS += -DKIV_CORE=external
else
KIV_DRIVERS_CONF_OPTS += -DKIV_CORE=bundled
endif

# Groups without a user, which the udev rules name.
define KIV_DRIVERS_USERS
	- - gpio -1 - - - - -
	- - i2c -1 - - - - -
endef

$(eval $(cmake-package))
