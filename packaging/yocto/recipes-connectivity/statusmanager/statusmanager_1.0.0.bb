SUMMARY = "Device-wide status values and events for the processes of an embedded Linux device"
DESCRIPTION = "The library that the processes of a device share their status through, the broker that holds it, and a \
tool for the shell."
HOMEPAGE = "https://statusmanager.example"
SECTION = "libs"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=36a7ab93bad234682c0f1782ef63d18e"

# What is committed in the checkout that this layer is in. For another place, set STATUSMANAGER_GIT and
# SRCREV:pn-statusmanager in local.conf; for what is not committed yet, use externalsrc.
STATUSMANAGER_GIT ?= "git://${STATUSMANAGER_CHECKOUT};protocol=file;usehead=1"
SRC_URI = "${STATUSMANAGER_GIT};destsuffix=statusmanager"
SRCREV ?= "${AUTOREV}"
# Releases before styhead have no UNPACKDIR.
S = "${@d.getVar('UNPACKDIR') or d.getVar('WORKDIR')}/statusmanager"

DEPENDS = "zeromq jsoncpp nlohmann-json"

inherit cmake pkgconfig systemd update-rc.d useradd

# Without the broker the device needs another one; without the tool it has no statusctl. The bridge to an MQTT server, and
# the fleet's desk, need meta-networking.
PACKAGECONFIG ??= "broker tool"
PACKAGECONFIG[broker] = "-DSTATUSMANAGER_BUILD_BROKER=ON,-DSTATUSMANAGER_BUILD_BROKER=OFF,cli11 sqlite3 tomlplusplus"
PACKAGECONFIG[bridge] = "-DSTATUSMANAGER_BUILD_BRIDGE=ON,-DSTATUSMANAGER_BUILD_BRIDGE=OFF,cppzmq mosquitto sqlite3"
PACKAGECONFIG[fleet] = "-DSTATUSMANAGER_BUILD_FLEET=ON,-DSTATUSMANAGER_BUILD_FLEET=OFF,cli11 mosquitto sqlite3"
PACKAGECONFIG[tool] = "-DSTATUSMANAGER_BUILD_TOOL=ON,-DSTATUSMANAGER_BUILD_TOOL=OFF,cppzmq cli11 ncurses"

# The examples are for a developer's machine, and so are the tests, which want its network ports. Programs find their
# libraries in the folder where the linker looks anyway.
EXTRA_OECMAKE = " \
    -DSTATUSMANAGER_BUILD_TESTS=OFF -DSTATUSMANAGER_BUILD_EXAMPLES=OFF \
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
"

# The unit is installed below the prefix; where / and /usr are not one, systemd looks for it elsewhere. Without systemd, a
# script starts the broker.
do_install:append() {
    if [ -d ${D}${nonarch_libdir}/systemd/system ] && [ "${systemd_system_unitdir}" != "${nonarch_libdir}/systemd/system" ]; then
        install -d ${D}${systemd_system_unitdir}
        mv ${D}${nonarch_libdir}/systemd/system/*.service ${D}${systemd_system_unitdir}/
        rmdir ${D}${nonarch_libdir}/systemd/system ${D}${nonarch_libdir}/systemd
    fi
    if ${STATUSMANAGER_NEEDS_SCRIPT}; then
        install -D -m 0755 ${S}/packaging/sysvinit/statusbroker ${D}${sysconfdir}/init.d/statusbroker
    fi
}
STATUSMANAGER_NEEDS_SCRIPT = "${@'true' if bb.utils.contains('PACKAGECONFIG', 'broker', True, False, d) and \
    bb.utils.contains('DISTRO_FEATURES', 'sysvinit', True, False, d) else 'false'}"

PACKAGES =+ "libveskcommon libstatusmanager libstatushelpers libstatusmanager-c statusbroker statusbridge statusfleet statusctl statusctl-completions"

FILES:libveskcommon = "${libdir}/libveskcommon.so.*"
FILES:libstatusmanager = "${libdir}/libstatusmanager.so.*"
FILES:libstatushelpers = "${libdir}/libstatushelpers.so.*"
FILES:libstatusmanager-c = "${libdir}/libstatusmanager-c.so.*"
FILES:statusbroker = " \
    ${bindir}/statusbroker \
    ${sysconfdir}/statusbroker.conf \
    ${sysconfdir}/init.d/statusbroker \
    ${systemd_system_unitdir}/statusbroker.service \
    ${nonarch_libdir}/sysusers.d/statusbroker.conf \
    ${libexecdir}/statusbroker \
    ${datadir}/statusbroker \
"
FILES:statusbridge = " \
    ${bindir}/statusbridge \
    ${systemd_system_unitdir}/statusbridge.service \
    ${nonarch_libdir}/sysusers.d/statusbridge.conf \
    ${datadir}/statusbridge \
"
FILES:statusfleet = "${bindir}/statusfleet"
FILES:statusctl = "${bindir}/statusctl"
FILES:statusctl-completions = "${datadir}/bash-completion ${datadir}/zsh ${datadir}/fish"
FILES:${PN}-dev = "${includedir} ${libdir}/lib*.so ${libdir}/cmake ${libdir}/pkgconfig"
FILES:${PN}-doc = "${mandir}"

# All packages together, for IMAGE_INSTALL.
ALLOW_EMPTY:${PN} = "1"
RDEPENDS:${PN} = "libstatusmanager \
    ${@bb.utils.contains('PACKAGECONFIG', 'broker', 'statusbroker', '', d)} \
    ${@bb.utils.contains('PACKAGECONFIG', 'bridge', 'statusbridge', '', d)} \
    ${@bb.utils.contains('PACKAGECONFIG', 'fleet', 'statusfleet', '', d)} \
    ${@bb.utils.contains('PACKAGECONFIG', 'tool', 'statusctl', '', d)} \
"
RDEPENDS:${PN}-dev = " \
    libstatusmanager-c (= ${EXTENDPKGV}) libstatushelpers (= ${EXTENDPKGV}) libstatusmanager (= ${EXTENDPKGV}) \
    libveskcommon (= ${EXTENDPKGV}) \
"

CONFFILES:statusbroker = "${sysconfdir}/statusbroker.conf"
SYSTEMD_PACKAGES = " \
    ${@bb.utils.contains('PACKAGECONFIG', 'broker', 'statusbroker', '', d)} \
    ${@bb.utils.contains('PACKAGECONFIG', 'bridge', 'statusbridge', '', d)} \
"
SYSTEMD_SERVICE:statusbroker = "statusbroker.service"
SYSTEMD_SERVICE:statusbridge = "statusbridge.service"
INITSCRIPT_PACKAGES = "${@bb.utils.contains('PACKAGECONFIG', 'broker', 'statusbroker', '', d)}"
INITSCRIPT_NAME:statusbroker = "statusbroker"
INITSCRIPT_PARAMS:statusbroker = "defaults 20"
USERADD_PACKAGES = "statusbroker statusbridge"
USERADD_PARAM:statusbroker = "--system --no-create-home --home-dir / --shell /sbin/nologin --user-group statusbroker"
USERADD_PARAM:statusbridge = "--system --no-create-home --home-dir / --shell /sbin/nologin --user-group statusbridge"

# For tools on the machine that builds, and in an SDK. There is no init there; zeromq and the others are needed likewise.
BBCLASSEXTEND = "native nativesdk"
