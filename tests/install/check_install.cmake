# Installs the built library into a scratch prefix, then configures, builds and runs a small
# consumer project against it, once through find_package(kelvo) and once through pkg-config.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
foreach(file include/mosk/kelvo.h include/mosk/kelvo/cycles.h lib/libkelvo.so.0
        lib/cmake/kelvo/kelvoConfig.cmake lib/pkgconfig/kelvo.pc)
  if(NOT EXISTS "${prefix}/${file}")
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()

run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/install/consumer" -B "${WORK_DIR}/consumer"
    -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${prefix}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/consumer")
run("${WORK_DIR}/consumer/consumer")

find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} "${prefix}/lib/pkgconfig")
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs kelvo OUTPUT_VARIABLE flags
                RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know kelvo")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 "${SOURCE_DIR}/tests/install/consumer/main.cpp" ${flags}
    "-Wl,-rpath,${prefix}/lib" -o "${WORK_DIR}/consumer-pkgconfig")
run("${WORK_DIR}/consumer-pkgconfig")
