# SPDX-License-Identifier: GPL-3.0-only
cmake_minimum_required(VERSION 3.20)
# Makes one manual page: SOURCE, OUTPUT, VERSION, SCDOC and PROGRAM are given by -D.
file(READ ${SOURCE} text)
string(REPLACE "@VERSION@" "${VERSION}" text "${text}")
if(text MATCHES "@VERBS@")
    execute_process(COMMAND ${PROGRAM} --manual OUTPUT_VARIABLE verbs COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE "@VERBS@" "${verbs}" text "${text}")
endif()
get_filename_component(folder ${OUTPUT} DIRECTORY)
file(MAKE_DIRECTORY ${folder})
file(WRITE ${OUTPUT}.scd "${text}")
execute_process(COMMAND ${SCDOC} INPUT_FILE ${OUTPUT}.scd OUTPUT_FILE ${OUTPUT} COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE ${OUTPUT}.scd)
