# Runs at install time (from QxssInstall.cmake): writes qxss.pc for the prefix of this
# installation and installs it like any other file, so that it lands in the install manifest
# and honours DESTDIR.
foreach(kind LIBDIR INCLUDEDIR)
    if(IS_ABSOLUTE "${QXSS_PC_${kind}}")
        set(QXSS_PC_${kind}_PATH "${QXSS_PC_${kind}}")
    else()
        set(QXSS_PC_${kind}_PATH "\${prefix}/${QXSS_PC_${kind}}")
    endif()
endforeach()
set(QXSS_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
# A directory of its own for each installation, so that two installs from one build tree at
# the same time (a test and a packaging run) never share the file.
string(RANDOM LENGTH 12 QXSS_PC_STAMP)
set(QXSS_PC_STAGE "${QXSS_PC_WORK_DIR}/pkgconfig-${QXSS_PC_STAMP}")
configure_file("${QXSS_PC_TEMPLATE}" "${QXSS_PC_STAGE}/qxss.pc" @ONLY)
if(IS_ABSOLUTE "${QXSS_PC_LIBDIR}")
    set(QXSS_PC_DESTINATION "${QXSS_PC_LIBDIR}/pkgconfig")
else()
    set(QXSS_PC_DESTINATION "${CMAKE_INSTALL_PREFIX}/${QXSS_PC_LIBDIR}/pkgconfig")
endif()
file(INSTALL DESTINATION "${QXSS_PC_DESTINATION}" TYPE FILE FILES "${QXSS_PC_STAGE}/qxss.pc")
file(REMOVE_RECURSE "${QXSS_PC_STAGE}")
