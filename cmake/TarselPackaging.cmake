# Debian packages with CPack (cpack -G DEB in the build directory):
#   libtarsel-modbus1     the shared libraries (component "runtime")
#   libtarsel-modbus-dev  headers, link-time names, CMake and pkg-config files
#                         (component "devel")
#   tarsel-modbusd        the daemon with its maps, manual page, systemd unit
#                         and settings in /etc (component "daemon"), where the
#                         daemon is built
# The architecture is the target's: amd64 for a host build, armhf for the
# cross build. Dependencies are stated, not computed: dpkg-shlibdeps cannot
# read the target's libraries in a cross build.

# Debian's name for the architecture being built for.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(arm|armv7.*)$")
    set(_tarsel_deb_arch armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(_tarsel_deb_arch arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    set(_tarsel_deb_arch amd64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^i.86$")
    set(_tarsel_deb_arch i386)
else()
    set(_tarsel_deb_arch ${CMAKE_SYSTEM_PROCESSOR})
endif()
set(TARSEL_MODBUS_DEB_ARCHITECTURE ${_tarsel_deb_arch} CACHE STRING
    "Debian architecture of the packages made by cpack")

set(CPACK_PACKAGE_NAME tarsel-modbus)
set(CPACK_PACKAGE_VENDOR "tarsel")
set(CPACK_PACKAGE_CONTACT "tarsel firmware team <firmware@tarsel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Binds values of a UPS card's data store to Modbus registers and discretes")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
# Packages install under /usr whatever the build's own prefix; every installed
# file finds the others by relative paths. Stripping uses the target's strip
# (CMAKE_STRIP, the cross toolchain's in a cross build).
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime devel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${TARSEL_MODBUS_DEB_ARCHITECTURE})
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)

set(_tarsel_soversion ${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtarsel-modbus${_tarsel_soversion})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# Built with Debian 12's toolchain: glibc 2.36, libstdc++ of GCC 12.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
    "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), libmodbus5 (>= 3.1.6)")
if(NOT TARSEL_MODBUS_PLATFORM STREQUAL "HOST")
    set(TARSEL_MODBUS_SDK_DEB_DEPENDS "" CACHE STRING
        "Debian dependencies on the card SDK's runtime packages, e.g. \"card-platform (>= 4.2)\"")
    if(TARSEL_MODBUS_SDK_DEB_DEPENDS)
        string(APPEND CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ", ${TARSEL_MODBUS_SDK_DEB_DEPENDS}")
    endif()
endif()
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Shared library of the Modbus register map of the UPS card's Modbus server")

set(CPACK_DEBIAN_DEVEL_PACKAGE_NAME libtarsel-modbus-dev)
set(CPACK_DEBIAN_DEVEL_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS
    "libtarsel-modbus${_tarsel_soversion} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_COMPONENT_DEVEL_DESCRIPTION
    "Headers, CMake package and pkg-config file of libtarsel_modbus")
set(CPACK_COMPONENT_DEVEL_DEPENDS runtime)

# What dpkg learns of the libraries from the runtime package: shlibs names
# the package (and the least version) that a program linked against each
# SONAME depends on, so that dpkg-shlibdeps can compute the dependency of a
# consumer's own package; the trigger has the loader's cache rebuilt.
set(_tarsel_shlibs "libtarsel_modbus ${_tarsel_soversion} ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (>= ${PROJECT_VERSION})\n")
if(TARSEL_MODBUS_PLATFORM STREQUAL "HOST")
    string(APPEND _tarsel_shlibs
        "libtarsel_cdshost ${_tarsel_soversion} ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (>= ${PROJECT_VERSION})\n")
endif()
file(WRITE ${PROJECT_BINARY_DIR}/debian/runtime/shlibs "${_tarsel_shlibs}")
configure_file(${PROJECT_SOURCE_DIR}/package/triggers ${PROJECT_BINARY_DIR}/debian/runtime/triggers COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_BINARY_DIR}/debian/runtime/shlibs ${PROJECT_BINARY_DIR}/debian/runtime/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Each library package carries the copyright file and its changelog in its
# own documentation directory. gzip -n: no name or time stamp in the archive,
# so that packages built from the same sources are the same.
set(_tarsel_changelog_gz ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz)
execute_process(COMMAND gzip -9n -c ${PROJECT_SOURCE_DIR}/package/changelog
                OUTPUT_FILE ${_tarsel_changelog_gz} COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/package/changelog)
foreach(_tarsel_component runtime devel)
    string(TOUPPER ${_tarsel_component} _tarsel_upper)
    install(FILES ${PROJECT_SOURCE_DIR}/package/copyright ${_tarsel_changelog_gz}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${_tarsel_upper}_PACKAGE_NAME}
            COMPONENT ${_tarsel_component})
endforeach()

# The daemon's package. Built with Debian 12's libraries; the dependencies
# are those of the program's NEEDED entries (Package.DaemonDeb checks them).
if(TARGET tarsel-modbusd)
    list(APPEND CPACK_COMPONENTS_ALL daemon)
    set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME tarsel-modbusd)
    set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION net)
    # libupsclient6 is loaded by the program for --nut, not linked (no
    # NEEDED entry): named here all the same. libssl3 is the TLS module's
    # (loaded for --tls-port), not the program's. procps holds /bin/kill,
    # which the unit's ExecReload= runs, and is not essential.
    set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS
        "libtarsel-modbus${_tarsel_soversion} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})"
        "libc6 (>= 2.34)" "libgcc-s1 (>= 3.0)" "libstdc++6 (>= 12)" "libmodbus5 (>= 3.1.6)"
        "libupsclient6 (>= 2.8.0)" "libssl3 (>= 3.0.0)" "libsimdjson14 (>= 3.0.1)" "procps")
    if(TARSEL_MODBUS_WITH_MIMALLOC)
        list(APPEND CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "libmimalloc2.0 (>= 2.0.9)")
    endif()
    string(JOIN ", " CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS ${CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS})
    # CPack puts CPACK_PACKAGE_DESCRIPTION_SUMMARY first, as the summary line.
    set(CPACK_DEBIAN_DAEMON_DESCRIPTION
        "tarsel-modbusd, a Modbus TCP gateway, serves the values of a UPS as Modbus
registers and discretes over Modbus TCP and Modbus/TCP Security (TLS), from a
simulated UPS or from UPSes of Network UPS Tools. It runs as an unprivileged
systemd service configured in /etc/tarsel-modbusd/tarsel-modbusd.json.")
    set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/daemon/package/conffiles)
    set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
    set(CPACK_COMPONENT_DAEMON_DEPENDS runtime)
endif()

include(CPack)
