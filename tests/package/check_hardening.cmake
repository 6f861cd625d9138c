# Every binary that ships is hardened as the build promises: a read-only GOT
# bound at load (GNU_RELRO and BIND_NOW), programs position-independent,
# stack canaries in the functions that hold arrays, and, where the optimiser
# builds the checked variants, calls to glibc's checked string functions.
#   -DREADELF=<the target's readelf> -DFORTIFIED=ON|OFF
#   -DPROGRAMS=<path;...> -DLIBRARIES=<path;...> -DFORTIFIED_BINARIES=<path;...>
cmake_minimum_required(VERSION 3.25)

function(read_elf binary option result)
    execute_process(COMMAND ${READELF} -W ${option} ${binary}
                    OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
    set(${result} "${listing}" PARENT_SCOPE)
endfunction()

set(faults "")
foreach(binary IN LISTS PROGRAMS LIBRARIES)
    get_filename_component(name ${binary} NAME)
    read_elf(${binary} --program-headers headers)
    if(NOT headers MATCHES "GNU_RELRO")
        string(APPEND faults "\n  ${name}: no GNU_RELRO segment (link with -z relro)")
    endif()
    read_elf(${binary} --dynamic dynamic)
    if(NOT dynamic MATCHES "\\(FLAGS\\)[^\n]*BIND_NOW" AND NOT dynamic MATCHES "\\(FLAGS_1\\)[^\n]*NOW")
        string(APPEND faults "\n  ${name}: symbols bound lazily (link with -z now)")
    endif()
    read_elf(${binary} --dyn-syms symbols)
    if(NOT symbols MATCHES " UND __stack_chk_fail")
        string(APPEND faults "\n  ${name}: no stack canary anywhere (-fstack-protector-strong)")
    endif()
    if(FORTIFIED AND binary IN_LIST FORTIFIED_BINARIES
       AND NOT symbols MATCHES " UND __[a-z0-9_]+_chk@")
        string(APPEND faults "\n  ${name}: no checked glibc function called (-D_FORTIFY_SOURCE=2)")
    endif()
endforeach()
foreach(program IN LISTS PROGRAMS)
    get_filename_component(name ${program} NAME)
    read_elf(${program} --file-header header)
    if(NOT header MATCHES "Type:[ ]+DYN")
        string(APPEND faults "\n  ${name}: not a position-independent executable")
    endif()
endforeach()
if(NOT faults STREQUAL "")
    message(FATAL_ERROR "binaries not hardened:${faults}")
endif()
list(LENGTH PROGRAMS programs)
list(LENGTH LIBRARIES libraries)
message(STATUS "hardened: ${programs} programs, ${libraries} libraries (fortified: ${FORTIFIED})")
