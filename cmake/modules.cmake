# store_module(<name> EXPORTS <map> [SOURCES <file>...] [LAYERS <lib>...] [LIBS <lib>...])
#
# A loadable module lib/<name>.so. Every module carries its own copy of the
# layers it names, with its own registry and mutexes: hidden visibility, the
# version script and -Bsymbolic keep those of two modules apart.
function(store_module name)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "EXPORTS" "SOURCES;LAYERS;LIBS")
    add_library(${name} MODULE ${arg_SOURCES})
    set(map ${CMAKE_CURRENT_SOURCE_DIR}/${arg_EXPORTS})
    set_target_properties(${name} PROPERTIES PREFIX "" LINKER_LANGUAGE CXX LINK_DEPENDS ${map})
    target_link_libraries(${name} PRIVATE build_flags ${arg_LAYERS} ${arg_LIBS})
    target_link_options(${name} PRIVATE -Wl,-Bsymbolic -Wl,-z,now LINKER:--version-script=${map})
    if(NOT FILESTORE_SANITIZE)  # a sanitizer's functions are found in the program
        target_link_options(${name} PRIVATE -Wl,--no-undefined)
    endif()
endfunction()
