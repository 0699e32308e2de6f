# What the archives need of the C++ run time where the linker is called for another language.
set(KX_MP4_CXX_RUN_TIME ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
list(FILTER KX_MP4_CXX_RUN_TIME INCLUDE REGEX "^(stdc\\+\\+|c\\+\\+|c\\+\\+abi|m)$")
list(REMOVE_DUPLICATES KX_MP4_CXX_RUN_TIME)

# What the installed libraries have in common. The shared ones export what is marked with
# KX_MP4_EXPORT and named in <target>.map.
function(kx_mp4_library_properties target)
    target_compile_features(${target} PUBLIC cxx_std_17)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:kx_mp4_warnings>)
    # File positions of 64 bits on 32-bit systems too.
    if(CMAKE_SIZEOF_VOID_P EQUAL 4)  # elsewhere off_t is wide, and calls keep their plain names
        target_compile_definitions(${target} PRIVATE _FILE_OFFSET_BITS=64)
    endif()
    set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "STATIC_LIBRARY")
        target_link_libraries(${target} INTERFACE "$<$<LINK_LANGUAGE:C>:${KX_MP4_CXX_RUN_TIME}>")
    elseif(type STREQUAL "SHARED_LIBRARY")
        set(map ${PROJECT_SOURCE_DIR}/cmake/${target}.map)
        target_link_options(${target} PRIVATE LINKER:--version-script=${map})
        set_target_properties(${target} PROPERTIES LINK_DEPENDS ${map})
    endif()
endfunction()

# <library>_internal gives this project's own targets the library's inner classes, which the shared
# library hides: there it is an archive of the same object files, otherwise it is the library itself.
# The further arguments are what the archive has to be linked with.
function(kx_mp4_add_internal_library library)
    get_target_property(type ${library} TYPE)
    if(type STREQUAL "SHARED_LIBRARY")
        add_library(${library}_internal STATIC EXCLUDE_FROM_ALL $<TARGET_OBJECTS:${library}>)
        set_target_properties(${library}_internal PROPERTIES LINKER_LANGUAGE CXX)
        target_compile_features(${library}_internal INTERFACE cxx_std_17)
        target_include_directories(${library}_internal INTERFACE ${PROJECT_SOURCE_DIR}/inc)
        target_link_libraries(${library}_internal INTERFACE ${ARGN})
    else()
        add_library(${library}_internal INTERFACE)
        target_link_libraries(${library}_internal INTERFACE ${library} ${ARGN})
    endif()
endfunction()

configure_file(${PROJECT_SOURCE_DIR}/src/version.h.in ${PROJECT_BINARY_DIR}/src/version.h @ONLY)
