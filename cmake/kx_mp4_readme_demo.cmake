# Compares what scripts/demo.sh prints of its first recording with what README.md shows of it.
#
# KXMUX   the program kxmux, built
# OUTPUT  a scratch folder
# UPDATE  ON: README.md takes over what was printed
cmake_minimum_required(VERSION 3.20)
include(${CMAKE_CURRENT_LIST_DIR}/kx_mp4_readme_block.cmake)

set(ENV{KXMUX} ${KXMUX})
execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/demo.sh ${OUTPUT}
                OUTPUT_VARIABLE printed COMMAND_ERROR_IS_FATAL ANY)
string(FIND "${printed}" "\n\n" end)
string(SUBSTRING "${printed}" 0 ${end} first)
string(REPLACE "${OUTPUT}/" "out/" first "${first}\n")
kx_mp4_check_readme_block("<!-- scripts/demo.sh -->\n```\n" "```\n<!-- end -->" "${first}"
    "cmake -DUPDATE=ON -DKXMUX=build/sanitize/tools/kxmux/kxmux -DOUTPUT=out -P cmake/kx_mp4_readme_demo.cmake")
