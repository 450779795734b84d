# Language level, warnings and instrumentation shared by every target.
add_library(clipweir_flags INTERFACE)

target_compile_features(clipweir_flags INTERFACE cxx_std_17)

target_compile_options(clipweir_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual
    $<$<BOOL:${CLIPWEIR_WERROR}>:-Werror>)

target_compile_definitions(clipweir_flags INTERFACE
    QT_NO_CAST_FROM_ASCII
    QT_NO_CAST_TO_ASCII
    QT_NO_URL_CAST_FROM_STRING
    QT_DEPRECATED_WARNINGS
    # A message handler is told where a message came from only when asked; nobody reads it here.
    QT_NO_MESSAGELOGCONTEXT
    $<$<OR:$<BOOL:${BUILD_TESTING}>,$<BOOL:${CLIPWEIR_FUZZ}>>:QT_FORCE_ASSERTS>
    $<$<OR:$<BOOL:${BUILD_TESTING}>,$<BOOL:${CLIPWEIR_FUZZ}>>:_GLIBCXX_ASSERTIONS>)

if(CLIPWEIR_SANITIZE)
    target_compile_options(clipweir_flags INTERFACE
        -fsanitize=${CLIPWEIR_SANITIZE} -fno-omit-frame-pointer)
    if(CLIPWEIR_SANITIZE MATCHES "undefined")
        target_compile_options(clipweir_flags INTERFACE -fno-sanitize-recover=undefined)
    endif()
    target_link_options(clipweir_flags INTERFACE -fsanitize=${CLIPWEIR_SANITIZE})
endif()

# clipweir_sanitize(PROGRAM)  tells the program what it has to know when it is built with sanitizers
function(clipweir_sanitize program)
    if(CLIPWEIR_SANITIZE MATCHES "address")
        target_sources(${program} PRIVATE ${PROJECT_SOURCE_DIR}/tests/sanitizers/options.cpp)
    endif()
endfunction()

if(CLIPWEIR_FUZZ)
    # The coverage that libFuzzer is led by, without its main(): that is for the targets alone.
    target_compile_options(clipweir_flags INTERFACE -fsanitize=fuzzer-no-link)
    target_link_options(clipweir_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
