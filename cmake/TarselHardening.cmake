# Hardening of everything the project builds, as Debian builds its packages:
# the daemon reads whatever a network peer sends, so an overflow that slips
# through should meet a stack canary, a checked string function and a
# read-only, eagerly bound GOT rather than a clean exploit.
include(CheckCXXCompilerFlag)

option(TARSEL_MODBUS_HARDENING
       "Stack protector and stack-clash protection, _FORTIFY_SOURCE=2, full RELRO" ON)

if(TARSEL_MODBUS_HARDENING)
    add_compile_options(-fstack-protector-strong)
    check_cxx_compiler_flag(-fstack-clash-protection TARSEL_HAS_STACK_CLASH_PROTECTION)
    if(TARSEL_HAS_STACK_CLASH_PROTECTION)
        add_compile_options(-fstack-clash-protection)
    endif()
    # The checked string and memory functions need the optimiser (glibc warns
    # otherwise, an error under TARSEL_MODBUS_WERROR), and the sanitizers
    # check those calls themselves. Undefined first: a toolchain that already
    # defines it would otherwise warn of the redefinition.
    if(NOT TARSEL_MODBUS_SANITIZE AND NOT TARSEL_MODBUS_SANITIZE_THREAD)
        add_compile_options(
            "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
    endif()
    add_link_options(LINKER:-z,relro LINKER:-z,now)
endif()
