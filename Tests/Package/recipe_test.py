#!/usr/bin/env python3
# The device recipes in packaging/, carried out without Buildroot or Yocto.
#
# Usage: recipe_test.py SOURCE_DIR
#
# Makes the release tarball of HEAD (scripts/make_release_tarball.sh), then
# configures, builds and installs it with the CMake arguments each recipe
# gives -- Buildroot's read by make from nvq-http.mk, Yocto's from the .bb --
# plus those its infrastructure adds, through the repository's cross
# toolchain files: Buildroot for armhf with shared libraries into a staging
# directory, Yocto for aarch64 with the recipe's static libraries into an
# image directory. Then checks what was installed (headers, libraries, CMake
# package, pkg-config file, sample site, the demo binary of the right machine)
# and builds the README's host program against each installation, through
# pkg-config and through find_package.
#
# Exit status 0 passed, 1 failed, 77 skipped (a tool or cross compiler is
# missing, or the sources are no git checkout).

import os
import re
import shutil
import subprocess
import sys
import tempfile

# What Buildroot's cmake-package adds for a target package (its toolchain
# file sets the build type and empties the Release flags; TARGET_CXXFLAGS
# carry the optimisation level and the large-file macros).
BUILDROOT_ARGS = """-DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG -DCMAKE_INSTALL_PREFIX=/usr
-DCMAKE_COLOR_MAKEFILE=OFF -DBUILD_DOC=OFF -DBUILD_DOCS=OFF -DBUILD_EXAMPLE=OFF -DBUILD_EXAMPLES=OFF
-DBUILD_TEST=OFF -DBUILD_TESTS=OFF -DBUILD_TESTING=OFF -DBUILD_SHARED_LIBS=ON""".split() + [
    "-DCMAKE_CXX_FLAGS=-D_LARGEFILE_SOURCE -D_LARGEFILE64_SOURCE -D_FILE_OFFSET_BITS=64 -Os"]

# What Yocto's cmake.bbclass adds (its toolchain file empties the Release
# flags; CXXFLAGS carry the distro's optimisation).
YOCTO_ARGS = """-DCMAKE_CXX_FLAGS_RELEASE=-DNDEBUG -DCMAKE_INSTALL_PREFIX:PATH=/usr -DCMAKE_INSTALL_BINDIR:PATH=bin
-DCMAKE_INSTALL_SBINDIR:PATH=sbin -DCMAKE_INSTALL_LIBEXECDIR:PATH=libexec -DCMAKE_INSTALL_SYSCONFDIR:PATH=/etc
-DCMAKE_INSTALL_SHAREDSTATEDIR:PATH=../com -DCMAKE_INSTALL_LOCALSTATEDIR:PATH=/var -DCMAKE_INSTALL_LIBDIR:PATH=lib
-DCMAKE_INSTALL_INCLUDEDIR:PATH=include -DCMAKE_INSTALL_DATAROOTDIR:PATH=share -DCMAKE_INSTALL_SO_NO_EXE=0
-DCMAKE_NO_SYSTEM_FROM_IMPORTED=1 -DCMAKE_EXPORT_NO_PACKAGE_REGISTRY=ON -DFETCHCONTENT_FULLY_DISCONNECTED=ON
-Wno-dev""".split() + ["-DCMAKE_CXX_FLAGS=-O2 -pipe"]


class Failure(Exception):
    pass


def run(command, **kwargs):
    result = subprocess.run(command, capture_output=True, text=True, check=False, **kwargs)
    if result.returncode != 0:
        raise Failure("%s failed:\n%s%s" % (" ".join(command), result.stdout[-3000:], result.stderr[-3000:]))
    return result.stdout


def check(condition, message):
    if not condition:
        raise Failure(message)


def check_machine(path, machine):
    # Every member of an archive, or the one ELF file.
    found = set(re.findall(r"Machine:\s+(.*)", run(["readelf", "-h", path])))
    check(found == {machine}, "%s is for %s, not %s" % (path, found, machine))


def buildroot_options(mk_path):
    # NVQ_HTTP_VERSION, NVQ_HTTP_SOURCE and NVQ_HTTP_CONF_OPTS as make reads the .mk.
    makefile = "\n".join([
        "BR2_PACKAGE_NVQ_HTTP = y", "BR2_PACKAGE_NVQ_HTTP_DEMO = y", 'BR2_PACKAGE_NVQ_HTTP_SITE = ""',
        "qstrip = $(strip $(subst \",,$(1)))", "cmake-package =", "include %s" % mk_path, "print:",
        "\t@echo '$(NVQ_HTTP_VERSION)'", "\t@echo '$(NVQ_HTTP_SOURCE)'", "\t@printf '%s\\n' $(NVQ_HTTP_CONF_OPTS)", ""])
    lines = run(["make", "--no-print-directory", "-s", "-f", "-", "print"], input=makefile).splitlines()
    return lines[0], lines[1], lines[2:]


def yocto_options(bb_path, version):
    # The recipe's plain assignments (=, ?=, ??=; flags as NAME[flag]),
    # expanded with the variables a Yocto build sets.
    values = {}
    for name, operator, value in re.findall(r'^([A-Za-z_][\w:\-${}]*(?:\[\w+\])?)\s*(\?\?=|\?=|=)\s*"(.*)"\s*$',
                                            open(bb_path).read().replace("\\\n", ""), re.M):
        if operator == "=" or name not in values:
            values[name] = value
    variables = {"prefix": "/usr", "bindir": "/usr/bin", "libdir": "/usr/lib", "datadir": "/usr/share",
                 "includedir": "/usr/include", "PV": version, "PN": "nvq-http"}
    expand = lambda text: re.sub(r"\$\{(\w+)\}", lambda m: variables[m.group(1)], text)
    enabled = values.get("PACKAGECONFIG", "").split()
    arguments = expand(values["EXTRA_OECMAKE"]).split()
    for name, value in values.items():
        flag = re.fullmatch(r"PACKAGECONFIG\[(\w+)\]", name)
        if flag:
            arguments.append((value.split(",") + ["", ""])[0 if flag.group(1) in enabled else 1])
    return expand(values["SRC_URI"]), [a for a in arguments if a]


def check_installation(root, machine, static, source_dir):
    usr = os.path.join(root, "usr")
    for path in ["include/nvq/HTTP/HTTPServer.h", "include/nvq/HTTP/HTTPDefaultHandler.h",
                 "include/nvq/KZF_Base/Linux/RefCountPtr.h", "include/nvq/NVQSockets/Linux/SocketServerLayer.h",
                 "lib/cmake/NVQHttp/NVQHttpConfig.cmake", "lib/cmake/NVQHttp/NVQHttpConfigVersion.cmake",
                 "share/nvq-http/www/index.html"]:
        check(os.path.isfile(os.path.join(usr, path)), "%s not installed" % path)
    for library in ["kzf_base", "nvq_sockets", "nvq_http"]:
        check_machine(os.path.join(usr, "lib", "lib%s.%s" % (library, "a" if static else "so")), machine)
    check("_FILE_OFFSET_BITS=64" in open(os.path.join(usr, "lib/cmake/NVQHttp/NVQHttpTargets.cmake")).read(),
          "the CMake package does not pass on 64-bit file offsets")
    flags = run(["pkg-config", "--cflags", "--libs", "nvqhttp"], env=dict(os.environ, PKG_CONFIG_SYSROOT_DIR=root,
                PKG_CONFIG_LIBDIR=os.path.join(usr, "lib/pkgconfig"), PKG_CONFIG_PATH="")).split()
    check("-D_FILE_OFFSET_BITS=64" in flags and "-D_TIME_BITS=64" in flags,
          "pkg-config does not pass on 64-bit offsets and time: %s" % flags)
    binary = os.path.join(usr, "bin", "nvq-httpd")
    check_machine(binary, machine)
    content = open(binary, "rb").read()
    check(b"/usr/share/nvq-http/www" in content and (source_dir + "/www").encode() not in content,
          "nvq-httpd does not default to the installed sample site")
    return flags


def build_and_install(source, build, arguments, root, install_command):
    run(["cmake", "-S", source, "-B", build, "-G", "Ninja"] + arguments)
    run(["cmake", "--build", build, "-j", str(os.cpu_count() or 2)])
    run(install_command, env=dict(os.environ, DESTDIR=root))


def main():
    source_dir = os.path.abspath(sys.argv[1])
    for tool in ["git", "make", "readelf", "pkg-config", "arm-linux-gnueabihf-g++", "aarch64-linux-gnu-g++"]:
        if shutil.which(tool) is None:
            print("SKIPPED: %s is not installed" % tool)
            return 77
    if subprocess.run(["git", "-C", source_dir, "rev-parse", "HEAD"], capture_output=True).returncode != 0:
        print("SKIPPED: %s is no git checkout, so there is no release tarball to make" % source_dir)
        return 77
    if subprocess.run(["git", "-C", source_dir, "diff", "--quiet", "HEAD"]).returncode != 0:
        print("note: the tarball holds HEAD; uncommitted changes are not in it")
    work = tempfile.mkdtemp(prefix="nvq-recipes-")
    try:
        tarball = run([os.path.join(source_dir, "scripts", "make_release_tarball.sh"), work]).splitlines()[0]
        run(["tar", "-xzf", tarball, "-C", work])
        name = os.path.basename(tarball)[:-len(".tar.gz")]
        version, source = name[len("nvq-http-"):], os.path.join(work, name)
        toolchain = "-DCMAKE_TOOLCHAIN_FILE=%s/cmake/toolchains/%%s.cmake" % source
        host = os.path.join(source, "Tests", "Package", "host.cpp")

        # Buildroot, armhf, shared libraries, into staging; host through pkg-config.
        mk_version, mk_source, conf_opts = buildroot_options(
            os.path.join(source, "packaging", "buildroot", "nvq-http", "nvq-http.mk"))
        check((mk_version, mk_source) == (version, os.path.basename(tarball)),
              "nvq-http.mk names %s %s, the tarball is %s" % (mk_version, mk_source, tarball))
        staging, build = os.path.join(work, "staging"), os.path.join(work, "build-buildroot")
        build_and_install(source, build, [toolchain % "armhf"] + BUILDROOT_ARGS + conf_opts, staging,
                          ["cmake", "--install", build])
        flags = check_installation(staging, "ARM", False, source)
        run(["arm-linux-gnueabihf-g++", "-std=c++17", host, "-o", work + "/host-armhf"] + flags)
        check_machine(work + "/host-armhf", "ARM")
        print("buildroot (armhf, shared): %s; host built with pkg-config" % " ".join(conf_opts))

        # Yocto, aarch64, the recipe's static libraries, into the image; host through find_package.
        src_uri, extra = yocto_options(os.path.join(source, "packaging", "yocto", "nvq-http_%s.bb" % version),
                                       version)
        check(src_uri == "file://" + os.path.basename(tarball), "the recipe fetches %s" % src_uri)
        image, build = os.path.join(work, "image"), os.path.join(work, "build-yocto")
        build_and_install(source, build, YOCTO_ARGS + [toolchain % "aarch64"] + extra, image,
                          ["cmake", "--build", build, "--target", "install"])
        check_installation(image, "AArch64", True, source)
        consumer = shutil.copytree(os.path.dirname(host), os.path.join(work, "consumer"))
        shutil.copy(consumer + "/CMakeLists.txt.in", consumer + "/CMakeLists.txt")
        run(["cmake", "-S", consumer, "-B", consumer + "/build", toolchain % "aarch64",
             "-DCMAKE_PREFIX_PATH=%s/usr" % image])
        run(["cmake", "--build", consumer + "/build"])
        check_machine(consumer + "/build/host", "AArch64")
        print("yocto (aarch64, static): %s; host built with find_package" % " ".join(extra))
        return 0
    except Failure as failure:
        print("FAILED: %s" % failure)
        return 1
    finally:
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
