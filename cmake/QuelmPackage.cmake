# The Debian package: `cpack -G DEB` in a build folder configured with -DCMAKE_INSTALL_PREFIX=/usr.
include(GNUInstallDirs)

set(CPACK_PACKAGE_NAME quelm)
set(CPACK_PACKAGE_VENDOR "Quelm developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "kext installer and permission repair for macOS volumes")
set(CPACK_PACKAGE_DESCRIPTION [=[
Quelm installs macOS kernel extensions (kext bundles) onto a macOS system
volume and brings the volume back to a state that boots: each kext goes into
the right Extensions folder, owned by root; the ownership and permissions of
the volume are repaired from its own package receipts; its kext caches are
rebuilt, or marked stale for macOS to rebuild when it next starts.

It is made for the rescue case too: a macOS disk mounted on Linux because
macOS no longer starts. The package holds the desktop application (quelm),
the command line tool (quelmctl), and the privileged helper that the
application starts through pkexec, with its polkit action.]=])
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Quelm developers <dev@quelm.org>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE https://quelm.org)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
# Libraries come from the binaries (dpkg-shlibdeps); these are what the binaries only run or
# load: pkexec starts the helper, the helper runs killall, Qt loads its SVG plugins by name.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pkexec, psmisc")
if(QUELM_BUILD_GUI)
    string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libqt6svg6")
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
# The package puts files where the build says they are: the helper's compiled-in path and the
# one its polkit action names both come from CMAKE_INSTALL_PREFIX.
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_QUELM_MAN_PAGES ${QUELM_MAN_PAGES})
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/QuelmPackageChecks.cmake)

# What Debian wants in /usr/share/doc/quelm: the copyright, and a changelog gzipped for good.
set(QUELM_DEBIAN_DIR ${CMAKE_BINARY_DIR}/debian)
set(QUELM_DEBIAN_VERSION ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
# SOURCE_DATE_EPOCH, when set, makes the date, and with it the package, reproducible.
string(TIMESTAMP QUELM_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_SOURCE_DIR}/resources/debian/changelog.in ${QUELM_DEBIAN_DIR}/changelog
    @ONLY)
execute_process(COMMAND gzip -9nc ${QUELM_DEBIAN_DIR}/changelog
    OUTPUT_FILE ${QUELM_DEBIAN_DIR}/changelog.Debian.gz COMMAND_ERROR_IS_FATAL ANY)
install(FILES ${CMAKE_SOURCE_DIR}/resources/debian/copyright ${QUELM_DEBIAN_DIR}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/quelm)

include(CPack)
