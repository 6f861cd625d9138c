# Install rules: headers, the shared library, the host platform library (HOST
# only), a CMake package (find_package(tarsel_modbus) -> tarsel::modbus) and a
# pkg-config file (tarsel_modbus.pc). Components: "runtime" (the shared
# libraries) and "devel" (headers, link-time names, CMake and pkg-config files).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TARSEL_MODBUS_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/tarsel_modbus
    CACHE STRING "Where the CMake package files are installed, relative to the prefix")
# The platform API headers go to a directory of their own: on the card the
# SDK's headers take their place, and its modbus/ directory must not clash
# with the library's.
set(TARSEL_MODBUS_PLATFORM_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/tarsel_modbus/platform)

set_target_properties(tarsel_modbus PROPERTIES EXPORT_NAME modbus)
# The installed library finds the host platform library beside it, wherever
# the tree was installed.
if(TARSEL_MODBUS_PLATFORM STREQUAL "HOST")
    set_target_properties(tarsel_modbus PROPERTIES INSTALL_RPATH "\$ORIGIN")
endif()
set_target_properties(tarsel_platform PROPERTIES EXPORT_NAME platform)
set(_tarsel_install_targets tarsel_modbus tarsel_platform)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/modbus
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT devel
        FILES_MATCHING PATTERN "*.h")

if(TARSEL_MODBUS_PLATFORM STREQUAL "HOST")
    set_target_properties(tarsel_cdshost PROPERTIES EXPORT_NAME cdshost)
    list(APPEND _tarsel_install_targets tarsel_cdshost)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/
                      ${PROJECT_SOURCE_DIR}/platform/host/include/
            DESTINATION ${TARSEL_MODBUS_PLATFORM_INCLUDEDIR}
            COMPONENT devel
            FILES_MATCHING PATTERN "*.h")
endif()

install(TARGETS ${_tarsel_install_targets}
        EXPORT tarsel_modbusTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT runtime
            NAMELINK_COMPONENT devel
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT devel
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT tarsel_modbusTargets
        NAMESPACE tarsel::
        DESTINATION ${TARSEL_MODBUS_INSTALL_CMAKEDIR}
        COMPONENT devel)

configure_package_config_file(
    ${CMAKE_CURRENT_LIST_DIR}/tarsel_modbus-config.cmake.in
    ${PROJECT_BINARY_DIR}/tarsel_modbus-config.cmake
    INSTALL_DESTINATION ${TARSEL_MODBUS_INSTALL_CMAKEDIR})
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/tarsel_modbus-config-version.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tarsel_modbus-config.cmake
              ${PROJECT_BINARY_DIR}/tarsel_modbus-config-version.cmake
        DESTINATION ${TARSEL_MODBUS_INSTALL_CMAKEDIR}
        COMPONENT devel)

# pkg-config: paths relative to the .pc file, so that the installed tree can be
# moved (cmake --install --prefix, a staging directory, a sysroot).
if(TARSEL_MODBUS_PLATFORM STREQUAL "HOST")
    set(TARSEL_MODBUS_PC_REQUIRES "")
    set(TARSEL_MODBUS_PC_CFLAGS "-I\${includedir}/tarsel_modbus/platform")
    set(TARSEL_MODBUS_PC_LIBS "-ltarsel_cdshost")
    set(TARSEL_MODBUS_PC_LIBS_PRIVATE "-pthread")
else()
    set(TARSEL_MODBUS_SDK_PC_REQUIRES "" CACHE STRING
        "pkg-config modules of the card SDK that consumers of tarsel_modbus.pc need (SDK platform)")
    set(TARSEL_MODBUS_PC_REQUIRES "${TARSEL_MODBUS_SDK_PC_REQUIRES}")
    set(TARSEL_MODBUS_PC_CFLAGS "")
    set(TARSEL_MODBUS_PC_LIBS "")
    set(TARSEL_MODBUS_PC_LIBS_PRIVATE "")
endif()
# Consumers compile the library's inline code: they get its float contraction
# setting as well (the CMake package carries it in the target's compile options).
string(PREPEND TARSEL_MODBUS_PC_CFLAGS "-ffp-contract=off ")
string(STRIP "${TARSEL_MODBUS_PC_CFLAGS}" TARSEL_MODBUS_PC_CFLAGS)
file(RELATIVE_PATH TARSEL_MODBUS_PC_PREFIX_FROM_PCDIR
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" TARSEL_MODBUS_PC_PREFIX_FROM_PCDIR "${TARSEL_MODBUS_PC_PREFIX_FROM_PCDIR}")
file(RELATIVE_PATH TARSEL_MODBUS_PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH TARSEL_MODBUS_PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${CMAKE_CURRENT_LIST_DIR}/tarsel_modbus.pc.in ${PROJECT_BINARY_DIR}/tarsel_modbus.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarsel_modbus.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT devel)
