# Compares the program in README.md with examples/record.cpp, from which it is taken. With
# -DUPDATE=ON (before -P) it is copied from there.
cmake_minimum_required(VERSION 3.20)

set(root ${CMAKE_CURRENT_LIST_DIR}/..)
file(READ ${root}/README.md readme)
file(READ ${root}/examples/record.cpp example)
set(begin "<!-- examples/record.cpp -->\n```cpp\n")
set(end "```\n<!-- end -->")

string(FIND "${readme}" "${begin}" first)
string(FIND "${readme}" "${end}" last)
if(first EQUAL -1 OR last EQUAL -1)
    message(FATAL_ERROR "README.md lacks the marks around the program")
endif()
string(LENGTH "${begin}" length)
math(EXPR first "${first} + ${length}")
math(EXPR length "${last} - ${first}")
string(SUBSTRING "${readme}" ${first} ${length} shown)
if(shown STREQUAL example)
    return()
endif()
if(NOT UPDATE)
    message(FATAL_ERROR "The program in README.md is not examples/record.cpp. Refresh it with\n"
                        "  cmake -DUPDATE=ON -P cmake/kx_mp4_readme_example.cmake")
endif()
string(SUBSTRING "${readme}" 0 ${first} before)
string(SUBSTRING "${readme}" ${last} -1 after)
file(WRITE ${root}/README.md "${before}${example}${after}")
