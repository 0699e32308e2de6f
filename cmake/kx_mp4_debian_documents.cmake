# Run by cpack on the staged files: adds the licence and the changelog to every Debian package, and
# compresses the changelog and the manual pages, without a time stamp.
find_program(GZIP gzip REQUIRED)

function(kx_mp4_compress)
    execute_process(COMMAND ${GZIP} -9 -n -f ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(component LIBRARY DEVELOPMENT TOOLS)
    string(TOLOWER ${component} folder)
    set(root ${CPACK_TEMPORARY_DIRECTORY}/${folder}/usr/share)
    if(NOT IS_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY}/${folder})
        continue()
    endif()
    set(documents ${root}/doc/${CPACK_KX_MP4_PACKAGE_${component}})
    file(COPY ${CPACK_KX_MP4_SOURCE_DIR}/packaging/debian/copyright
              ${CPACK_KX_MP4_SOURCE_DIR}/CHANGELOG.md
              ${CPACK_KX_MP4_DEBIAN_DIR}/changelog.Debian
         DESTINATION ${documents} FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    file(RENAME ${documents}/CHANGELOG.md ${documents}/changelog)
    kx_mp4_compress(${documents}/changelog ${documents}/changelog.Debian)
    file(GLOB pages ${root}/man/man1/*.1)
    if(pages)
        kx_mp4_compress(${pages})
    endif()
endforeach()
