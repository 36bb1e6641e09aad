# The client's own Debian package, update-device_<version>_<arch>.deb, beside
# the device's in <tree>/packages. Its install rule belongs to a component
# left out of a plain install, so the device image and the device package
# never get it; `cpack --config <tree>/src/client/CPackConfig.cmake` builds it
# (scripts/lib/package.sh does).
include(GNUInstallDirs)
install(TARGETS update_device RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT update_device EXCLUDE_FROM_ALL)
configure_file(CPackConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/CPackConfig.cmake @ONLY)
