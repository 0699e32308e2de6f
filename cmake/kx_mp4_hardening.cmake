# KX_MP4_HARDEN=ON builds libraries and programs the way that distributions ask for: checked stack
# frames and buffer sizes, addresses that cannot be foretold, tables that are read-only at run time,
# and, where the processor has them, checked jumps.
if(KX_MP4_HARDEN)
    include(CheckCXXCompilerFlag)
    include(CheckPIESupported)
    check_pie_supported()
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    add_compile_options(-fstack-protector-strong -Wformat -Werror=format-security)
    add_compile_definitions($<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
    foreach(flag -fstack-clash-protection -fcf-protection)
        string(MAKE_C_IDENTIFIER KX_MP4_HAS${flag} has)
        check_cxx_compiler_flag(${flag} ${has})
        if(${has})
            add_compile_options(${flag})
        endif()
    endforeach()
    add_link_options(LINKER:-z,relro LINKER:-z,now)
endif()
