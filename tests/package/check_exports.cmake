# The shared library exports its API and nothing else: every defined dynamic
# symbol is a function or object of namespace modbus, or the vtable or type
# information of one of its classes. The standard library's templates that
# the library instantiates over its own types (its registries' containers,
# shared_ptr control blocks) stay inside it.
#   -DLIBRARY=<path of libtarsel_modbus.so> -DNM=<the target's nm>
execute_process(COMMAND ${NM} -D -C --defined-only ${LIBRARY}
                OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "\n" ";" lines "${listing}")
set(api 0)
set(foreign "")
foreach(line IN LISTS lines)
    # "<address> <type> <name>"; the name may hold spaces.
    if(NOT line MATCHES "^[0-9a-fA-F]+ [A-Za-z] (.+)$")
        continue()
    endif()
    set(name "${CMAKE_MATCH_1}")
    if(name MATCHES "^((vtable|typeinfo|typeinfo name|VTT) for )?modbus::")
        math(EXPR api "${api} + 1")
    else()
        string(APPEND foreign "\n  ${name}")
    endif()
endforeach()
message(STATUS "exported symbols of namespace modbus: ${api}")
if(api EQUAL 0)
    message(FATAL_ERROR "no symbol of namespace modbus is exported by ${LIBRARY}")
endif()
if(NOT foreign STREQUAL "")
    message(FATAL_ERROR "symbols outside namespace modbus are exported by ${LIBRARY}:${foreign}")
endif()
