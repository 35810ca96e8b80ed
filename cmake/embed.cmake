# embed_text(<target> <constant> <file> HEADER <header>)
#
# Compiles the text of <file> into the target, as the `const char <constant>[]` of namespace
# fstore that <header> declares. The text is read again when the file changes.
function(embed_text target constant file)
    cmake_parse_arguments(PARSE_ARGV 3 arg "" "HEADER" "")
    cmake_path(ABSOLUTE_PATH file)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    file(READ ${file} text)
    set(source ${CMAKE_CURRENT_BINARY_DIR}/${constant}.cpp)
    set(frame [[
#include "@arg_HEADER@"

namespace fstore {
const char @constant@[] = R"~~~~(@text@)~~~~";
}
]])
    file(CONFIGURE OUTPUT ${source} CONTENT "${frame}" @ONLY)
    target_sources(${target} PRIVATE ${source})
endfunction()
