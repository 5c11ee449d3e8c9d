# Installs the build into a scratch prefix and runs the installed tools from there with no
# LD_LIBRARY_PATH: their install rpath ($ORIGIN/../lib) must find the installed library.
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}"
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "install failed:\n${out}")
endif()
unset(ENV{LD_LIBRARY_PATH})
string(REPLACE "," ";" TOOLS "${TOOLS}")  # a comma-separated list

# What is installed into bin/ is exactly this list, and the README's install section names
# every one of them, so that the README cannot fall behind what a machine gets.
file(GLOB installed RELATIVE "${prefix}/bin" "${prefix}/bin/*")
set(expected ${TOOLS})
list(SORT installed)
list(SORT expected)
if(NOT installed STREQUAL expected)
  message(FATAL_ERROR "bin/ holds: ${installed}\nthe check expects: ${expected}")
endif()
if(DEFINED README)
  file(READ "${README}" readme)
  string(REGEX MATCH "### Install it, tools included\n(.*)\n### " section "${readme}")
  foreach(tool ${TOOLS})
    string(FIND "${CMAKE_MATCH_1}" "`${tool}`" found)
    if(found EQUAL -1)
      message(FATAL_ERROR "the README's install section does not name the installed `${tool}`")
    endif()
  endforeach()
endif()

foreach(tool ${TOOLS})
  set(path "${prefix}/bin/${tool}")
  if(NOT EXISTS "${path}")
    message(FATAL_ERROR "not installed: bin/${tool}")
  endif()
  execute_process(COMMAND readelf -d "${path}" OUTPUT_VARIABLE dynamic)
  if(NOT dynamic MATCHES "R(UN)?PATH[^\n]*\\$ORIGIN/\\.\\./lib")
    message(FATAL_ERROR "bin/${tool} has no $ORIGIN/../lib search path:\n${dynamic}")
  endif()
  # The dynamic loader lists what it would load, without running the tool.
  execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_TRACE_LOADED_OBJECTS=1 "${path}"
                  OUTPUT_VARIABLE loaded ERROR_VARIABLE loaded)
  string(FIND "${loaded}" "libkelvo.so.0 => ${prefix}/bin/../lib/libkelvo.so.0" found)
  if(found EQUAL -1)
    message(FATAL_ERROR "bin/${tool} does not load the installed library:\n${loaded}")
  endif()
endforeach()

# And one runs for real: the readiness report exits 0, or 1 on a machine that refuses
# SCHED_FIFO; either way it gets as far as its report.
if("kelvo-check" IN_LIST TOOLS)
  execute_process(COMMAND "${prefix}/bin/kelvo-check" RESULT_VARIABLE rc OUTPUT_VARIABLE out
                  ERROR_VARIABLE out TIMEOUT 120)
  if(NOT (rc EQUAL 0 OR rc EQUAL 1) OR NOT out MATCHES "MD5 self-test")
    message(FATAL_ERROR "installed kelvo-check failed (${rc}):\n${out}")
  endif()
endif()
# kelvo-plugin-check looks a name without a slash up as dlopen does, in the library path and not
# in the current directory, and says so when the file sits there.
if("kelvo-plugin-check" IN_LIST TOOLS)
  file(MAKE_DIRECTORY "${WORK_DIR}/cwd")
  file(COPY_FILE "${prefix}/lib/libkelvo.so.0" "${WORK_DIR}/cwd/libkelvo_cwd_check.so")
  execute_process(COMMAND "${prefix}/bin/kelvo-plugin-check" libkelvo_cwd_check.so
                  WORKING_DIRECTORY "${WORK_DIR}/cwd" RESULT_VARIABLE rc OUTPUT_VARIABLE out
                  ERROR_VARIABLE out TIMEOUT 60)
  if(NOT rc EQUAL 1 OR NOT out MATCHES "not in the current directory: give \\./libkelvo_cwd_check\\.so\n$")
    message(FATAL_ERROR "installed kelvo-plugin-check (${rc}):\n${out}")
  endif()
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
