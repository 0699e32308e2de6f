# A block of README.md between two marks that has to be the same as something that is tested.
#
# kx_mp4_check_readme_block(BEGIN END EXPECTED COMMAND): fails when the text between the marks is not
# EXPECTED. With -DUPDATE=ON (before -P) it is replaced; COMMAND is what does that.
set(KX_MP4_README ${CMAKE_CURRENT_LIST_DIR}/../README.md)

function(kx_mp4_check_readme_block begin end expected command)
    file(READ ${KX_MP4_README} readme)
    string(FIND "${readme}" "${begin}" first)
    if(first EQUAL -1)
        message(FATAL_ERROR "README.md lacks the mark ${begin}")
    endif()
    string(LENGTH "${begin}" length)
    math(EXPR first "${first} + ${length}")
    string(SUBSTRING "${readme}" 0 ${first} before)
    string(SUBSTRING "${readme}" ${first} -1 rest)
    string(FIND "${rest}" "${end}" last)
    if(last EQUAL -1)
        message(FATAL_ERROR "README.md lacks the mark ${end}")
    endif()
    string(SUBSTRING "${rest}" 0 ${last} shown)
    string(SUBSTRING "${rest}" ${last} -1 after)
    if(shown STREQUAL expected)
        return()
    endif()
    if(NOT UPDATE)
        message(FATAL_ERROR "README.md shows\n${shown}\nbut it should be\n${expected}\n"
                            "Refresh it with\n  ${command}")
    endif()
    file(WRITE ${KX_MP4_README} "${before}${expected}${after}")
endfunction()
