SUMMARY = "Embedded HTTP/1.1 server library for Linux devices"
DESCRIPTION = "An HTTP/1.1 server library in C++17, \
with the demo server nvq-httpd and its sample site."
LICENSE = "CLOSED"

# The release tarball made by scripts/make_release_tarball.sh, put in files/
# beside this recipe. From a download server instead:
#   SRC_URI = "https://example.com/nvq/nvq-http-${PV}.tar.gz"
#   SRC_URI[sha256sum] = "<the hash the script prints>"
SRC_URI = "file://nvq-http-${PV}.tar.gz"

inherit cmake

# cmake.bbclass empties the Release flags, so the distro's optimisation
# level applies.
EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=Release -DNVQ_BUILD_TESTS=OFF -DNVQ_DEMO_ROOT=${datadir}/nvq-http/www"

# Each optional feature of the library (TLS, uploads, WebSocket) gets a
# PACKAGECONFIG here. HTTPS: PACKAGECONFIG:append = " tls" in a bbappend or
# local.conf (OpenSSL 3 is then a dependency).
PACKAGECONFIG ??= "demo"
PACKAGECONFIG[demo] = "-DNVQ_BUILD_DEMO=ON,-DNVQ_BUILD_DEMO=OFF"
PACKAGECONFIG[tls] = "-DNVQ_WITH_TLS=ON,-DNVQ_WITH_TLS=OFF,openssl"

# 64-bit atomics need libatomic on these 32-bit architectures.
LDFLAGS:append:mipsarch = " -latomic"
LDFLAGS:append:powerpc = " -latomic"

# Static libraries (the project's default): a device's programs carry only
# what they use. ${PN} itself is then empty; ${PN}-staticdev has the
# archives, ${PN}-dev the headers, the CMake package and the pkg-config file.
ALLOW_EMPTY:${PN} = "1"
PACKAGES =+ "${PN}-demo"
FILES:${PN}-demo = "${bindir}/nvq-httpd ${datadir}/nvq-http"
