# What `cmake --install` puts where: the shared library with its SONAME links, the public
# header, a pkg-config file, a CMake package with the imported target qxss::qxss, qxss-check
# and the manual pages. Three components, one Debian package each (QxssPackaging.cmake):
#   runtime  the shared library
#   dev      header, linker name, pkg-config and CMake files, libqxss(3)
#   tools    qxss-check, qxss-check(1), sso.cfg(5)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QXSS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qxss)

# Hosts include <libqxss.h> from the installed include directory.
target_include_directories(qxss INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS qxss EXPORT qxssTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(FILES worker/libqxss.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(TARGETS qxss-check RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

# CMake package: find_package(qxss) gives qxss::qxss. The files locate the installation
# relative to themselves, so a tree moved or unpacked elsewhere still works.
install(EXPORT qxssTargets NAMESPACE qxss:: FILE qxss-targets.cmake
    DESTINATION ${QXSS_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/qxss-config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/qxss-config.cmake INSTALL_DESTINATION ${QXSS_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qxss-config-version.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qxss-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/qxss-config-version.cmake
    DESTINATION ${QXSS_CMAKE_DIR} COMPONENT dev)

# pkg-config: the prefix is the one of the installation being made (`--prefix`, or /usr when
# packaging), so the file is written at install time.
install(CODE "
    set(QXSS_PC_TEMPLATE \"${CMAKE_CURRENT_SOURCE_DIR}/cmake/qxss.pc.in\")
    set(QXSS_PC_WORK_DIR \"${CMAKE_CURRENT_BINARY_DIR}\")
    set(QXSS_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    set(QXSS_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
    set(QXSS_PC_VERSION \"${PROJECT_VERSION}\")
    include(\"${CMAKE_CURRENT_SOURCE_DIR}/cmake/QxssInstallPkgConfig.cmake\")
" COMPONENT dev)

# Manual pages, compressed as distributions ship them (gzip -n: no name or time inside, so
# the result depends on the text alone).
set(QXSS_MAN_PAGES libqxss.3 sso.cfg.5 qxss-check.1)
set(QXSS_MAN_COMPONENT_libqxss.3 dev)
set(QXSS_MAN_COMPONENT_sso.cfg.5 tools)
set(QXSS_MAN_COMPONENT_qxss-check.1 tools)
set(QXSS_COMPRESSED_MAN_PAGES)
foreach(page ${QXSS_MAN_PAGES})
    set(source ${CMAKE_CURRENT_SOURCE_DIR}/docs/man/${page})
    set(compressed ${CMAKE_CURRENT_BINARY_DIR}/man/${page}.gz)
    add_custom_command(OUTPUT ${compressed}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
        COMMAND gzip -9nc ${source} > ${compressed}
        DEPENDS ${source} VERBATIM)
    list(APPEND QXSS_COMPRESSED_MAN_PAGES ${compressed})
    string(REGEX REPLACE "^.*\\.([0-9])$" "\\1" section ${page})
    install(FILES ${compressed} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
        COMPONENT ${QXSS_MAN_COMPONENT_${page}})
endforeach()
add_custom_target(qxss_man_pages ALL DEPENDS ${QXSS_COMPRESSED_MAN_PAGES})
