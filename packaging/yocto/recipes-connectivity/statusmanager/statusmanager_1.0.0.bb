SUMMARY = "Device-wide status values and events for the processes of an embedded Linux device"
DESCRIPTION = "The library that the processes of a device share their status through, the broker that holds it, and a \
tool for the shell."
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=36a7ab93bad234682c0f1782ef63d18e"

# PLACEHOLDER: where your copy of the project is hosted, and the commit to build. Set both in a .bbappend or in
# local.conf; the recipe cannot fetch anything before.
STATUSMANAGER_GIT ?= "git://git.example.invalid/statusmanager.git;protocol=https;branch=main"
SRC_URI = "${STATUSMANAGER_GIT}"
SRCREV ?= "0000000000000000000000000000000000000000"
S = "${WORKDIR}/git"

DEPENDS = "zeromq jsoncpp nlohmann-json"

inherit cmake pkgconfig systemd useradd

# Without the broker the device needs another one; without the tool it has no statusctl.
PACKAGECONFIG ??= "broker tool"
PACKAGECONFIG[broker] = "-DSTATUSMANAGER_BUILD_BROKER=ON,-DSTATUSMANAGER_BUILD_BROKER=OFF,cli11 sqlite3 tomlplusplus"
PACKAGECONFIG[tool] = "-DSTATUSMANAGER_BUILD_TOOL=ON,-DSTATUSMANAGER_BUILD_TOOL=OFF,cppzmq cli11 ncurses"

# The examples are for a developer's machine, and so are the tests, which want its network ports. Programs find their
# libraries in the folder where the linker looks anyway.
EXTRA_OECMAKE = " \
    -DSTATUSMANAGER_BUILD_TESTS=OFF -DSTATUSMANAGER_BUILD_EXAMPLES=OFF \
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
"

# The unit is installed below the prefix; where / and /usr are not one, systemd looks for it elsewhere.
do_install:append() {
    if [ -d ${D}${nonarch_libdir}/systemd/system ] && [ "${systemd_system_unitdir}" != "${nonarch_libdir}/systemd/system" ]; then
        install -d ${D}${systemd_system_unitdir}
        mv ${D}${nonarch_libdir}/systemd/system/statusbroker.service ${D}${systemd_system_unitdir}/
        rmdir ${D}${nonarch_libdir}/systemd/system ${D}${nonarch_libdir}/systemd
    fi
}

PACKAGES =+ "libveskcommon libstatusmanager libstatushelpers statusbroker statusctl statusctl-completions"

FILES:libveskcommon = "${libdir}/libveskcommon.so.*"
FILES:libstatusmanager = "${libdir}/libstatusmanager.so.*"
FILES:libstatushelpers = "${libdir}/libstatushelpers.so.*"
FILES:statusbroker = " \
    ${bindir}/statusbroker \
    ${sysconfdir}/statusbroker.conf \
    ${systemd_system_unitdir}/statusbroker.service \
    ${nonarch_libdir}/sysusers.d/statusbroker.conf \
    ${libexecdir}/statusbroker \
    ${datadir}/statusbroker \
"
FILES:statusctl = "${bindir}/statusctl"
FILES:statusctl-completions = "${datadir}/bash-completion ${datadir}/zsh ${datadir}/fish"
FILES:${PN}-dev = "${includedir} ${libdir}/lib*.so ${libdir}/cmake ${libdir}/pkgconfig"
FILES:${PN}-doc = "${mandir}"

# All packages together, for IMAGE_INSTALL.
ALLOW_EMPTY:${PN} = "1"
RDEPENDS:${PN} = "libstatusmanager \
    ${@bb.utils.contains('PACKAGECONFIG', 'broker', 'statusbroker', '', d)} \
    ${@bb.utils.contains('PACKAGECONFIG', 'tool', 'statusctl', '', d)} \
"
RDEPENDS:${PN}-dev = " \
    libstatushelpers (= ${EXTENDPKGV}) libstatusmanager (= ${EXTENDPKGV}) libveskcommon (= ${EXTENDPKGV}) \
"

CONFFILES:statusbroker = "${sysconfdir}/statusbroker.conf"
SYSTEMD_PACKAGES = "${@bb.utils.contains('PACKAGECONFIG', 'broker', 'statusbroker', '', d)}"
SYSTEMD_SERVICE:statusbroker = "statusbroker.service"
USERADD_PACKAGES = "statusbroker"
USERADD_PARAM:statusbroker = "--system --no-create-home --home-dir / --shell /sbin/nologin --user-group statusbroker"
