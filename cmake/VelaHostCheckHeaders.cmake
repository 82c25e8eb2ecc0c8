include_guard()
include(VelaHostTargets)

# velahost_check_headers(NAME HEADER...): compiles every header alone, as a program that includes
# nothing else would, once as C++17 and once as C++20. HEADER is what follows `#include`.
function(velahost_check_headers name)
    set(sources)
    foreach(header ${ARGN})
        string(MAKE_C_IDENTIFIER "${header}" stem)
        set(source "${CMAKE_CURRENT_BINARY_DIR}/${name}/${stem}.cpp")
        # Twice: a second inclusion does no harm.
        file(CONFIGURE OUTPUT "${source}" @ONLY
            CONTENT "#include <@header@>\n#include <@header@>\n")
        list(APPEND sources "${source}")
    endforeach()
    foreach(standard 17 20)
        set(target ${name}_cxx${standard})
        add_library(${target} OBJECT ${sources})
        velahost_configure_target(${target})
        set_target_properties(${target} PROPERTIES CXX_STANDARD ${standard})
        target_link_libraries(${target} PRIVATE velahost)
    endforeach()
endfunction()
