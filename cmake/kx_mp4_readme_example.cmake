# Compares the program in README.md with examples/record.cpp, from which it is taken. With
# -DUPDATE=ON (before -P) it is copied from there.
cmake_minimum_required(VERSION 3.20)
include(${CMAKE_CURRENT_LIST_DIR}/kx_mp4_readme_block.cmake)

file(READ ${CMAKE_CURRENT_LIST_DIR}/../examples/record.cpp example)
kx_mp4_check_readme_block("<!-- examples/record.cpp -->\n```cpp\n" "```\n<!-- end -->" "${example}"
    "cmake -DUPDATE=ON -P cmake/kx_mp4_readme_example.cmake")
