# The page that asks the Flash plug-in for its version, made from res/flashver.htm.in and the
# SWFObject library, which scripts/fetch-swfobject.sh fetches.

if(IS_ABSOLUTE "$ENV{XDG_CACHE_HOME}")
    set(clipweir_cache "$ENV{XDG_CACHE_HOME}")
else()
    set(clipweir_cache "$ENV{HOME}/.cache")
endif()
set(CLIPWEIR_SWFOBJECT "${clipweir_cache}/clipweir/swfobject-2.2.1.js" CACHE FILEPATH
    "The SWFObject library as its package has it")

# clipweir_swfobject_text(VARIABLE)  reads the library, once it has been checked
function(clipweir_swfobject_text variable)
    set(hash_file ${PROJECT_SOURCE_DIR}/res/swfobject.sha256)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
        ${hash_file} ${CLIPWEIR_SWFOBJECT})
    if(NOT EXISTS "${CLIPWEIR_SWFOBJECT}")
        message(FATAL_ERROR "The SWFObject library is missing (${CLIPWEIR_SWFOBJECT}).\n"
            "Run scripts/setup.sh, or scripts/fetch-swfobject.sh alone.")
    endif()
    file(STRINGS ${hash_file} hash_line LIMIT_COUNT 1)
    string(SUBSTRING "${hash_line}" 0 64 expected)
    file(SHA256 "${CLIPWEIR_SWFOBJECT}" actual)
    if(NOT actual STREQUAL expected)
        message(FATAL_ERROR "This is not the SWFObject library that is expected: "
            "${CLIPWEIR_SWFOBJECT}\nRemove it and run scripts/fetch-swfobject.sh.")
    endif()
    file(READ "${CLIPWEIR_SWFOBJECT}" text)
    # The package adds its export, for which a page has no use, to the library.
    string(REGEX REPLACE "module\\.exports=swfobject;[\r\n]*$" "" library "${text}")
    if(library STREQUAL text)
        message(FATAL_ERROR "The export at the end of ${CLIPWEIR_SWFOBJECT} is not found")
    endif()
    set(${variable} "${library}" PARENT_SCOPE)
endfunction()

# clipweir_flash_probe_page(VARIABLE)  makes the page and sets the path of its resource file
function(clipweir_flash_probe_page variable)
    set(folder ${PROJECT_BINARY_DIR}/res)
    clipweir_swfobject_text(SWFOBJECT_LIBRARY)
    configure_file(${PROJECT_SOURCE_DIR}/res/flashver.htm.in ${folder}/flashver.htm @ONLY)
    configure_file(${PROJECT_SOURCE_DIR}/res/flashver.qrc ${folder}/flashver.qrc COPYONLY)
    set(${variable} ${folder}/flashver.qrc PARENT_SCOPE)
endfunction()
