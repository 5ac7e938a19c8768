# Run by the ReadmeWriterIsTheConsumer test (cmake -P): the README's writer example, the code
# block after the marker "<!-- FILE -->", must be FILE byte for byte, so that the example a reader
# copies is the one the PackageConsumer test compiles and runs.
#
# Inputs (-D): VEXLO_README (README.md), VEXLO_SOURCE_DIR, VEXLO_SNIPPET (path of FILE from the
#              source directory)
cmake_minimum_required(VERSION 3.23)

file(READ ${VEXLO_README} readme)
file(READ ${VEXLO_SOURCE_DIR}/${VEXLO_SNIPPET} expected)
set(marker "<!-- ${VEXLO_SNIPPET} -->\n```cpp\n")
string(FIND "${readme}" "${marker}" at)
if(at EQUAL -1)
  message(FATAL_ERROR "${VEXLO_README}: no block after \"<!-- ${VEXLO_SNIPPET} -->\"")
endif()
string(LENGTH "${marker}" marker_length)
math(EXPR start "${at} + ${marker_length}")
string(SUBSTRING "${readme}" ${start} -1 rest)
string(FIND "${rest}" "```" end)
if(end EQUAL -1)
  message(FATAL_ERROR "${VEXLO_README}: the block after the marker is not closed")
endif()
string(SUBSTRING "${rest}" 0 ${end} block)
if(NOT block STREQUAL expected)
  message(FATAL_ERROR "the README's block differs from ${VEXLO_SNIPPET}: copy the file into it")
endif()
message(STATUS "README block = ${VEXLO_SNIPPET}")
