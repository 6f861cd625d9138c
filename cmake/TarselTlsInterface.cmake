# The program and its TLS module pass classes to each other (TlsContext,
# TlsSession, TlsConfig and the module's table), so both must be built from
# the same declarations of them. The version alone does not say so: two
# builds of one version may come from different sources. The digest of the
# headers that declare them goes into both; the program refuses a module
# whose digest is not its own. CMake runs again when a header changes.
set(TARSEL_TLS_INTERFACE_HEADERS
    ${PROJECT_SOURCE_DIR}/daemon/src/protocol/TlsContext.h
    ${PROJECT_SOURCE_DIR}/daemon/src/protocol/TlsModuleEntry.h)

function(tarsel_tls_interface_digest out)
    set(text "")
    foreach(header ${TARSEL_TLS_INTERFACE_HEADERS})
        file(READ ${header} content)
        string(APPEND text "${content}")
    endforeach()
    string(SHA256 digest "${text}")
    string(SUBSTRING ${digest} 0 16 digest)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${TARSEL_TLS_INTERFACE_HEADERS})
    set(${out} ${digest} PARENT_SCOPE)
endfunction()
