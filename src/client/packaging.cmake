# The client's own Debian package, update-device_<version>_<arch>.deb, beside
# the device's in <tree>/packages. Its install rule belongs to a component
# left out of a plain install, so the device image and the device package
# never get it; `cpack --config <tree>/src/client/CPackConfig.cmake` builds it
# (scripts/lib/package.sh does).
include(GNUInstallDirs)
install(TARGETS update_device RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        COMPONENT update_device EXCLUDE_FROM_ALL)
configure_file(CPackConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/CPackConfig.cmake @ONLY)

# The manual page is made from --help and --version by help2man, so its words
# live in one place (options.cpp).
find_program(HELP2MAN_EXECUTABLE help2man REQUIRED)
set(client_manual ${CMAKE_CURRENT_BINARY_DIR}/update-device.1)
add_custom_command(OUTPUT ${client_manual}.gz
    COMMAND ${HELP2MAN_EXECUTABLE} --no-info --section 1 --source "update-device ${PROJECT_VERSION}"
            --name "update the firmware of devices through their web interface"
            --output ${client_manual} $<TARGET_FILE:update_device>
    COMMAND gzip -9nf ${client_manual}
    DEPENDS update_device
    COMMENT "Manual page of update-device")
add_custom_target(update_device_manual ALL DEPENDS ${client_manual}.gz)
install(FILES ${client_manual}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
        COMPONENT update_device EXCLUDE_FROM_ALL)
