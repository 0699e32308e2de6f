# What the installed libraries have in common. The shared ones export only what is marked with
# KX_MP4_EXPORT.
function(kx_mp4_library_properties target)
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:kx_mp4_warnings>)
    set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR})
endfunction()

# kx_mp4_internal gives this project's own targets the library's inner classes, which the shared
# library hides: there it is an archive of the same object files, otherwise it is kx_mp4 itself.
function(kx_mp4_add_internal_library)
    get_target_property(type kx_mp4 TYPE)
    if(type STREQUAL "SHARED_LIBRARY")
        add_library(kx_mp4_internal STATIC EXCLUDE_FROM_ALL $<TARGET_OBJECTS:kx_mp4>)
        set_target_properties(kx_mp4_internal PROPERTIES LINKER_LANGUAGE CXX)
        target_compile_features(kx_mp4_internal INTERFACE cxx_std_17)
        target_include_directories(kx_mp4_internal INTERFACE ${PROJECT_SOURCE_DIR}/inc)
        target_link_libraries(kx_mp4_internal INTERFACE Threads::Threads)
    else()
        add_library(kx_mp4_internal INTERFACE)
        target_link_libraries(kx_mp4_internal INTERFACE kx_mp4)
    endif()
    target_include_directories(kx_mp4_internal INTERFACE ${PROJECT_SOURCE_DIR}/src)
endfunction()

configure_file(${PROJECT_SOURCE_DIR}/src/version.h.in ${PROJECT_BINARY_DIR}/src/version.h @ONLY)
