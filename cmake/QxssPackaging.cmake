# Debian packages with CPack, one per install component (QxssInstall.cmake):
#   libqxss1     the shared library (runtime)
#   libqxss-dev  header, linker name, pkg-config and CMake files, libqxss(3) (dev)
#   qxss-tools   qxss-check with its manual and sso.cfg(5) (tools)
# Build them from a build tree with:  cpack --config <build>/CPackConfig.cmake -G DEB
# Dependencies on other packages are computed from the binaries (dpkg-shlibdeps).
set(QXSS_PACKAGE_MAINTAINER "libqxss developers <libqxss@example.org>"
    CACHE STRING "Maintainer field of the Debian packages")
set(QXSS_RUNTIME_PACKAGE libqxss${PROJECT_VERSION_MAJOR})

# Files only the packages carry: Debian's copyright and changelog for each package (the
# packages are native: built by the project itself, so the changelog is changelog.gz), installed
# only when a component is installed on its own (as CPack does), never by a plain install.
set(QXSS_DEBIAN_CHANGELOG ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.gz)
add_custom_command(OUTPUT ${QXSS_DEBIAN_CHANGELOG}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/debian
    COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/changelog > ${QXSS_DEBIAN_CHANGELOG}
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/changelog VERBATIM)
add_custom_target(qxss_debian_changelog ALL DEPENDS ${QXSS_DEBIAN_CHANGELOG})
foreach(component runtime dev tools)
    if(component STREQUAL "runtime")
        set(package ${QXSS_RUNTIME_PACKAGE})
    elseif(component STREQUAL "dev")
        set(package libqxss-dev)
    else()
        set(package qxss-tools)
    endif()
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
    install(FILES cmake/debian/copyright ${QXSS_DEBIAN_CHANGELOG}
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_PACKAGE_NAME libqxss)
set(CPACK_PACKAGE_VENDOR "libqxss developers")
set(CPACK_PACKAGE_CONTACT "${QXSS_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${QXSS_PACKAGE_MAINTAINER}")
# Component dependencies become package dependencies: libqxss-dev needs libqxss1 of its version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# Descriptions below: the first line is the package's summary, the rest its long description.

# The runtime package announces its SONAME (shlibs) and updates the linker cache through
# libc's ldconfig trigger; its own postinst and postrm replace CPack's, which call ldconfig.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/triggers
    ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/postrm)
install(FILES cmake/debian/libqxss1.lintian-overrides
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${QXSS_RUNTIME_PACKAGE}
    COMPONENT runtime EXCLUDE_FROM_ALL)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# dpkg-shlibdeps finds libcurl4 by its symbols alone; the transfers set CURLOPT_PROTOCOLS_STR,
# which libcurl knows from 7.85 on. The computed dependencies are added to these.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libcurl4 (>= 7.85.0)")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libcurl4 (>= 7.85.0)")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"OpenID Connect logins for Linux server processes - shared library
libqxss lets a server process log its users in through an OAuth 2.0 /
OpenID Connect identity provider. The host hands it one file descriptor;
a worker thread inside reads text commands from it, does the HTTP work
with the provider (discovery, PKCE code exchange, userinfo, refresh,
revocation) and writes reply lines back.")

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
"OpenID Connect logins for Linux server processes - development files
The header <libqxss.h>, the linker name, a pkg-config file (qxss) and a
CMake package (find_package(qxss), target qxss::qxss) for hosts that use
libqxss, and the manual page libqxss(3).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"OpenID Connect logins for Linux server processes - admin tools
qxss-check tells whether libqxss would load a configuration file: it
validates the file with the library's own code, fetches each provider's
discovery document and shows the authorization URL a client is sent to.
Also the manual page of the configuration file, sso.cfg(5).")

include(CPack)
