# Every installed header compiles alone, first in its translation unit and
# twice over, in C++17 with -Wall -Wextra -Wpedantic -Werror, against the
# installed tree only; and the only macro the headers define is the export
# macro.
#   -DPREFIX=<installed tree> -DCXX_COMPILER -DWORK_DIR
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
set(platform_dir ${PREFIX}/include/tarsel_modbus/platform)
file(GLOB_RECURSE public RELATIVE ${PREFIX}/include ${PREFIX}/include/modbus/*.h)
file(GLOB_RECURSE platform RELATIVE ${platform_dir} ${platform_dir}/*.h)
list(LENGTH public public_count)
if(public_count EQUAL 0)
    message(FATAL_ERROR "no public header installed in ${PREFIX}/include/modbus")
endif()

set(failures "")
set(index 0)
foreach(header IN LISTS public platform)
    math(EXPR index "${index} + 1")
    set(unit ${WORK_DIR}/unit${index}.cpp)
    file(WRITE ${unit} "#include \"${header}\"\n#include \"${header}\"\n")
    execute_process(COMMAND ${CXX_COMPILER} -std=c++17 -Wall -Wextra -Wpedantic -Werror
                            -fsyntax-only -I${PREFIX}/include -I${platform_dir} ${unit}
                    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        string(APPEND failures "\n${header} does not compile alone:\n${output}")
    endif()
endforeach()

file(GLOB_RECURSE installed_headers ${PREFIX}/include/*.h)
foreach(file IN LISTS installed_headers)
    file(STRINGS ${file} defines REGEX "^[ \t]*#[ \t]*define[ \t]+")
    foreach(define IN LISTS defines)
        if(NOT define MATCHES "^[ \t]*#[ \t]*define[ \t]+TARSEL_MODBUS_EXPORT([ \t]|$)")
            string(APPEND failures "\n${file} defines a macro: ${define}")
        endif()
    endforeach()
endforeach()

if(NOT failures STREQUAL "")
    message(FATAL_ERROR "${failures}")
endif()
list(LENGTH platform platform_count)
message(STATUS "${public_count} public and ${platform_count} platform headers compile alone")
