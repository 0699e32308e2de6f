# cpack: Debian packages of the three components. The preset "package" sets what they need:
#   cmake --preset package && cmake --build --preset package && (cd build/package && cpack)
set(KX_MP4_PACKAGE_CONTACT "the kx_mp4 authors <kx-mp4@example.org>" CACHE STRING
    "Maintainer of the packages, Name <address>")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kx-mp4)
set(CPACK_PACKAGE_CONTACT ${KX_MP4_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_COMPONENTS_ALL development)
if(BUILD_SHARED_LIBS)
    list(APPEND CPACK_COMPONENTS_ALL library)
endif()
if(KX_MP4_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/recorder
    ${PROJECT_BINARY_DIR}/repair ${PROJECT_BINARY_DIR}/c)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(kx_mp4_same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkx-mp4-${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
# cpack's own would call ldconfig from maintainer scripts.
foreach(file shlibs triggers)
    configure_file(${PROJECT_SOURCE_DIR}/packaging/debian/${file}.in
                   ${PROJECT_BINARY_DIR}/debian/${file} @ONLY)
    list(APPEND CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/${file})
endforeach()
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "MP4 and QuickTime recording library
Records encoded video, audio, captions and timecode into one MP4 file or
QuickTime movie, and repairs recordings that were cut off.

This package contains the shared libraries.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkx-mp4-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
if(BUILD_SHARED_LIBS)
    set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
        "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} ${kx_mp4_same_version}")
    set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
        "${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME} ${kx_mp4_same_version}")
endif()
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "MP4 and QuickTime recording library - development files
Records encoded video, audio, captions and timecode into one MP4 file or
QuickTime movie, and repairs recordings that were cut off.

This package contains the headers and the files for CMake and pkg-config.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kx-mp4-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "programs to record, repair and draw MP4 and QuickTime files
kxmux records raw video, audio and caption streams into one file, kxrepair
repairs a recording that was cut off, kxmap draws how a recording is laid out.")

# Debian wants documents in every package that are of no use elsewhere.
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/kx_mp4_debian_documents.cmake)
set(CPACK_KX_MP4_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_KX_MP4_DEBIAN_DIR ${PROJECT_BINARY_DIR}/debian)
configure_file(${PROJECT_SOURCE_DIR}/packaging/debian/changelog.Debian.in
               ${PROJECT_BINARY_DIR}/debian/changelog.Debian @ONLY)
foreach(component LIBRARY DEVELOPMENT TOOLS)
    set(CPACK_KX_MP4_PACKAGE_${component} ${CPACK_DEBIAN_${component}_PACKAGE_NAME})
endforeach()
include(CPack)
