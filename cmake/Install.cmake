# What `cmake --install` puts where, and the Debian package made of it.
#
# The program looks for rtmpdump in its own folder, so it has one: libexec/clipweir. The command of
# the name is a link; the system resolves it before the program asks where it lies.
set(program_dir ${CMAKE_INSTALL_LIBEXECDIR}/clipweir)

# Where a tool is on the machine that it is installed on; the package asks for those of Debian.
find_program(CLIPWEIR_RTMPDUMP rtmpdump DOC "The rtmpdump that the installed program runs")
find_program(CLIPWEIR_FFMPEG ffmpeg DOC "The ffmpeg that the installed program runs")
foreach(tool RTMPDUMP FFMPEG)
    if(NOT CLIPWEIR_${tool})
        string(TOLOWER ${tool} name)
        set(CLIPWEIR_${tool} /usr/bin/${name})
    endif()
endforeach()

# clipweir_install_link(TARGET LINK): LINK is relative to the prefix.
function(clipweir_install_link target link)
    set(made ${CMAKE_CURRENT_BINARY_DIR}/links/${link})
    get_filename_component(made_dir ${made} DIRECTORY)
    get_filename_component(link_dir ${link} DIRECTORY)
    file(MAKE_DIRECTORY ${made_dir})
    file(CREATE_LINK ${target} ${made} SYMBOLIC)
    install(FILES ${made} DESTINATION ${link_dir})
endfunction()

install(TARGETS clipweir clipweir-get clipweir_program clipweir_media_module
    RUNTIME DESTINATION ${program_dir}
    LIBRARY DESTINATION ${program_dir})
foreach(program IN ITEMS clipweir clipweir-get)
    file(RELATIVE_PATH program_from_bin
        ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBEXECDIR}/clipweir/${program})
    clipweir_install_link(${program_from_bin} ${CMAKE_INSTALL_BINDIR}/${program})
endforeach()
clipweir_install_link(${CLIPWEIR_RTMPDUMP} ${program_dir}/rtmpdump)
# The media probe looks below the working folder, which is the user's: a link to this folder there
# provides what it looks for.
clipweir_install_link(${CLIPWEIR_FFMPEG} ${program_dir}/import/bin/ffmpeg)

find_program(GZIP_PROGRAM gzip REQUIRED)
set(man_pages)
foreach(program IN ITEMS clipweir clipweir-get)
    set(man_page ${CMAKE_CURRENT_BINARY_DIR}/${program}.1.gz)
    add_custom_command(OUTPUT ${man_page}
        COMMAND ${GZIP_PROGRAM} -9nc ${CMAKE_CURRENT_SOURCE_DIR}/docs/${program}.1 > ${man_page}
        DEPENDS docs/${program}.1
        VERBATIM)
    list(APPEND man_pages ${man_page})
    install(FILES packaging/${program}.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME ${program})
endforeach()
add_custom_target(clipweir_man ALL DEPENDS ${man_pages})
install(FILES ${man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/clipweir-get.zsh-completion
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions
    RENAME _clipweir-get)
install(FILES packaging/clipweir-get.fish
    DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
install(FILES README.md packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs
    FILES_MATCHING PATTERN "*.md" PATTERN "*.png" PATTERN "*.schema.json")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR}
    FILES_MATCHING PATTERN "*.cpp" PATTERN "*.py")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "clipweir developers <developers@clipweir.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "clipweir opens a web page in a hidden browser view, watches its network
traffic and its document for the media files that it plays, downloads the
best of them and reports to the program that started it, line by line.")
# The libraries are found by looking at the program. What it loads or runs by name is named here:
# without the media plug-ins QtWebKit may not even ask for a page's video.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(needed_packages ffmpeg rtmpdump "fonts-dejavu-core | fonts-liberation | fonts-noto-core")
if(CLIPWEIR_WEBKIT)
    list(PREPEND needed_packages
        gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-libav)
endif()
string(JOIN ", " CPACK_DEBIAN_PACKAGE_DEPENDS ${needed_packages})
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "ca-certificates, publicsuffix")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "chromium-headless-shell")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS bash-completion)

# Two packages: the program, and the fleet that runs it on many machines. The fleet's files have a
# component of their own, and are nothing to those who install without a package.
set(fleet_modules lib/python3/dist-packages)
set(fleet_doc ${CMAKE_INSTALL_DATADIR}/doc/clipweir-fleet)
set(in_fleet COMPONENT fleet EXCLUDE_FROM_ALL)
install(DIRECTORY fleet/clipweir_fleet DESTINATION ${fleet_modules} ${in_fleet}
    FILES_MATCHING PATTERN "*.py" PATTERN __pycache__ EXCLUDE)
install(PROGRAMS fleet/bin/clipweir-fleet DESTINATION ${CMAKE_INSTALL_BINDIR} ${in_fleet})
install(FILES fleet/deploy/clipweir-fleet@.service DESTINATION lib/systemd/system ${in_fleet})
install(FILES packaging/copyright docs/fleet.md DESTINATION ${fleet_doc} ${in_fleet})
install(DIRECTORY fleet/deploy DESTINATION ${fleet_doc} ${in_fleet})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL Unspecified fleet)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME clipweir)
set(CPACK_COMPONENT_UNSPECIFIED_DESCRIPTION "${CPACK_DEBIAN_PACKAGE_DESCRIPTION}")
set(CPACK_DEBIAN_FLEET_PACKAGE_NAME clipweir-fleet)
set(CPACK_DEBIAN_FLEET_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_FLEET_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_FLEET_PACKAGE_DEPENDS "clipweir (>= ${PROJECT_VERSION}), python3, python3-celery, python3-redis")
set(CPACK_DEBIAN_FLEET_PACKAGE_RECOMMENDS "ca-certificates, publicsuffix")
set(CPACK_DEBIAN_FLEET_PACKAGE_SUGGESTS "redis-server")
set(CPACK_COMPONENT_FLEET_DESCRIPTION "captures the videos of many pages on many machines
clipweir-fleet hands pages to workers on any number of machines, which run
clipweir for them. It is kind to servers and loses no page when a worker dies.")
include(CPack)
