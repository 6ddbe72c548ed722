# Read by cpack before it packs: refuses a Debian package that could not work as installed.
if(CPACK_GENERATOR STREQUAL "DEB")
    if(NOT CPACK_PACKAGING_INSTALL_PREFIX STREQUAL "/usr")
        message(FATAL_ERROR "quelm: a Debian package installs into /usr, and the helper's path is "
            "compiled in: configure with -DCMAKE_INSTALL_PREFIX=/usr "
            "(this build has ${CPACK_PACKAGING_INSTALL_PREFIX})")
    endif()
    if(NOT CPACK_QUELM_MAN_PAGES)
        message(FATAL_ERROR "quelm: no manual pages were built: install help2man and scdoc "
            "(scripts/deps does) and build again")
    endif()
endif()
