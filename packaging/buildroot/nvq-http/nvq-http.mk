################################################################################
#
# nvq-http
#
################################################################################

NVQ_HTTP_VERSION = 0.1.0
NVQ_HTTP_SOURCE = nvq-http-$(NVQ_HTTP_VERSION).tar.gz
NVQ_HTTP_SITE = $(call qstrip,$(BR2_PACKAGE_NVQ_HTTP_SITE))
NVQ_HTTP_INSTALL_STAGING = YES
# Buildroot's toolchain file sets the build type (Release, whose own flags
# it empties) and BR2_OPTIMIZE_* the optimisation level.
NVQ_HTTP_CONF_OPTS = \
	-DNVQ_BUILD_TESTS=OFF \
	-DNVQ_DEMO_ROOT=/usr/share/nvq-http/www

ifeq ($(BR2_PACKAGE_NVQ_HTTP_DEMO),y)
NVQ_HTTP_CONF_OPTS += -DNVQ_BUILD_DEMO=ON
else
NVQ_HTTP_CONF_OPTS += -DNVQ_BUILD_DEMO=OFF
endif

ifeq ($(BR2_PACKAGE_NVQ_HTTP_TLS),y)
NVQ_HTTP_DEPENDENCIES += openssl
NVQ_HTTP_CONF_OPTS += -DNVQ_WITH_TLS=ON
else
NVQ_HTTP_CONF_OPTS += -DNVQ_WITH_TLS=OFF
endif

# 64-bit atomics need libatomic on some 32-bit architectures.
ifeq ($(BR2_TOOLCHAIN_HAS_LIBATOMIC),y)
NVQ_HTTP_CONF_OPTS += \
	-DCMAKE_EXE_LINKER_FLAGS=-latomic \
	-DCMAKE_SHARED_LINKER_FLAGS=-latomic
endif

$(eval $(cmake-package))
