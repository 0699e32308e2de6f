# cmake --install: three components, library (run time), development and tools.
#
#   bin/                      the programs                                    tools
#   lib/                      libkx_mp4 and _recorder, _repair, _c           library, development
#   include/kx_mp4/           the public headers                               development
#   lib/cmake/kx_mp4/         find_package(kx_mp4 CONFIG)                     development
#   lib/pkgconfig/            kx_mp4.pc and one for each of the others        development
#   share/man/man1/           manual pages of the programs                    tools
#   share/doc/kx_mp4/         README.md, docs/, examples/                     development
include(CMakePackageConfigHelpers)

set(KX_MP4_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kx_mp4)

set(KX_MP4_LIBRARIES kx_mp4 kx_mp4_recorder)
set_target_properties(kx_mp4_recorder PROPERTIES EXPORT_NAME recorder)
if(TARGET kx_mp4_repair)
    list(APPEND KX_MP4_LIBRARIES kx_mp4_repair kx_mp4_c)
    set_target_properties(kx_mp4_repair PROPERTIES EXPORT_NAME repair)
    set_target_properties(kx_mp4_c PROPERTIES EXPORT_NAME c)
endif()
install(TARGETS ${KX_MP4_LIBRARIES} EXPORT kx_mp4-targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(KX_MP4_PUBLIC_HEADERS
    inc/kx_mp4/Mp4Muxer.h
    inc/kx_mp4/buffered_io.h
    inc/kx_mp4/export.h
    inc/kx_mp4/io_callbacks.h
    inc/kx_mp4/kx_mp4.h
    inc/kx_mp4/presentation.h
    inc/kx_mp4/recorder.h
    inc/kx_mp4/statistics.h
    inc/kx_mp4/status.h
    inc/kx_mp4/zv_log.h)
if(TARGET kx_mp4_repair)
    list(APPEND KX_MP4_PUBLIC_HEADERS inc/kx_mp4/kx_mp4_c.h inc/kx_mp4/repair.h)
endif()
install(FILES ${KX_MP4_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kx_mp4
        COMPONENT development)

install(EXPORT kx_mp4-targets NAMESPACE kx_mp4:: DESTINATION ${KX_MP4_INSTALL_CMAKEDIR}
        COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kx_mp4-config.cmake.in
    ${PROJECT_BINARY_DIR}/kx_mp4-config.cmake INSTALL_DESTINATION ${KX_MP4_INSTALL_CMAKEDIR}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kx_mp4-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kx_mp4-config.cmake
              ${PROJECT_BINARY_DIR}/kx_mp4-config-version.cmake
        DESTINATION ${KX_MP4_INSTALL_CMAKEDIR} COMPONENT development)

# The pkg-config files find the tree from where they are, so that it can be moved;
# in the system's own prefix they name the plain paths, which pkg-config then leaves out.
set(KX_MP4_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" OR IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR}
   OR IS_ABSOLUTE ${CMAKE_INSTALL_INCLUDEDIR})
    set(KX_MP4_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
    set(KX_MP4_PC_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR})
    set(KX_MP4_PC_INCLUDEDIR ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
    file(RELATIVE_PATH KX_MP4_PC_PREFIX /${KX_MP4_PC_DIR} /)
    set(KX_MP4_PC_PREFIX \${pcfiledir}/${KX_MP4_PC_PREFIX})
    string(REGEX REPLACE "/$" "" KX_MP4_PC_PREFIX ${KX_MP4_PC_PREFIX})
    set(KX_MP4_PC_LIBDIR \${prefix}/${CMAKE_INSTALL_LIBDIR})
    set(KX_MP4_PC_INCLUDEDIR \${prefix}/${CMAKE_INSTALL_INCLUDEDIR})
endif()
list(TRANSFORM KX_MP4_CXX_RUN_TIME PREPEND -l OUTPUT_VARIABLE KX_MP4_PC_RUN_TIME)
list(JOIN KX_MP4_PC_RUN_TIME " " KX_MP4_PC_RUN_TIME)
foreach(library ${KX_MP4_LIBRARIES})
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${library}.pc.in ${PROJECT_BINARY_DIR}/${library}.pc
                   @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${KX_MP4_PC_DIR}
            COMPONENT development)
endforeach()

foreach(program kxmux kxrepair kxmap)
    if(TARGET ${program})
        install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
        install(FILES ${PROJECT_SOURCE_DIR}/docs/man/${program}.1
                DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    endif()
endforeach()

set(KX_MP4_DOCUMENTS ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
                     ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples)
foreach(document ${KX_MP4_DOCUMENTS})
    if(IS_DIRECTORY ${document})
        install(DIRECTORY ${document} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
                FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.c" PATTERN "*.cpp" PATTERN "*.h"
                PATTERN "*.py"
                PATTERN man EXCLUDE)
    elseif(EXISTS ${document})
        install(FILES ${document} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
    endif()
endforeach()
