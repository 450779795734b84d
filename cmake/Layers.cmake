# The house is built in layers, each a library of its own that sees the headers of those before it and
# of no other: an include that points upwards does not build.

# Nothing stays of a layer or a door that is no more.
file(REMOVE_RECURSE ${PROJECT_BINARY_DIR}/doors ${PROJECT_BINARY_DIR}/layers)

# clipweir_layer(NAME [ON layer...] [FOLDER path] [CLASSES class...] [DOORS class...] [LIBS library...])
#
# The library clipweir_NAME of the classes in FOLDER (src/NAME unless it is given). CLASSES are pairs
# of a header and a source, or a header alone. DOORS are pairs that lie in src/ itself; their headers
# are linked into a folder of the layer's, so that nobody sees all that lies there.
function(clipweir_layer name)
    cmake_parse_arguments(ARG "" "FOLDER" "ON;CLASSES;DOORS;LIBS" ${ARGN})
    if(NOT ARG_FOLDER)
        set(ARG_FOLDER ${PROJECT_SOURCE_DIR}/src/${name})
    endif()
    set(files)
    foreach(class IN LISTS ARG_CLASSES)
        list(APPEND files ${ARG_FOLDER}/${class}.h)
        if(EXISTS ${ARG_FOLDER}/${class}.cpp)
            list(APPEND files ${ARG_FOLDER}/${class}.cpp)
        endif()
    endforeach()
    set(links ${PROJECT_BINARY_DIR}/doors/${name})
    file(MAKE_DIRECTORY ${links})
    foreach(class IN LISTS ARG_DOORS)
        file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${class}.h ${links}/${class}.h SYMBOLIC)
        list(APPEND files ${PROJECT_SOURCE_DIR}/src/${class}.h ${PROJECT_SOURCE_DIR}/src/${class}.cpp)
    endforeach()
    add_library(clipweir_${name} STATIC ${files})
    target_include_directories(clipweir_${name} PUBLIC ${ARG_FOLDER} ${links})
    list(TRANSFORM ARG_ON PREPEND clipweir_ OUTPUT_VARIABLE lower_libraries)
    target_link_libraries(clipweir_${name} PUBLIC ${lower_libraries} clipweir_flags ${ARG_LIBS})

    # For the test of the rule: what belongs to the layer, what it may see and what it does see.
    file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/layers/${name}.json CONTENT "{
\"on\": \"${ARG_ON}\",
\"home\": \"${CMAKE_CURRENT_SOURCE_DIR}\",
\"files\": \"$<TARGET_PROPERTY:clipweir_${name},SOURCES>\",
\"folders\": \"$<TARGET_PROPERTY:clipweir_${name},INCLUDE_DIRECTORIES>\"
}
")
endfunction()
