# Warnings of this project's own targets; never passed on to its consumers.
add_library(kx_mp4_warnings INTERFACE)
if(PROJECT_IS_TOP_LEVEL)
    target_compile_options(kx_mp4_warnings INTERFACE
        -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
endif()
if(KX_MP4_WARNINGS_AS_ERRORS)
    target_compile_options(kx_mp4_warnings INTERFACE -Werror)
endif()
