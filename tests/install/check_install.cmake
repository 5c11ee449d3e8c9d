# Installs the built library into a scratch prefix, then configures, builds and runs a small
# consumer project against it, once through find_package(kelvo) and once through pkg-config,
# and a consumer that derives from every polymorphic class of the installed library.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

include(${CMAKE_CURRENT_LIST_DIR}/consumer_checks.cmake)

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
foreach(file include/mosk/kelvo.h include/mosk/kelvo/cycles.h lib/libkelvo.so.0
        lib/cmake/kelvo/kelvoConfig.cmake lib/pkgconfig/kelvo.pc)
  if(NOT EXISTS "${prefix}/${file}")
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()

check_consumer("${prefix}" "${prefix}/lib")
check_deriving_consumer("${prefix}" "${prefix}/lib/libkelvo.so.0")

# A plug-in built by an outside project with kelvo_add_plugin() and KELVO_PLUGIN, against the
# installed headers alone, loads into a host built against the installed library.
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/install/plugin_consumer"
    -B "${WORK_DIR}/plugin_consumer" -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${prefix}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/plugin_consumer")
run("${WORK_DIR}/plugin_consumer/plugin_host" "${WORK_DIR}/plugin_consumer/libhello_plugin.so")
execute_process(COMMAND nm -D --defined-only "${WORK_DIR}/plugin_consumer/libhello_plugin.so"
                OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
string(REGEX REPLACE "[0-9a-f]+ [A-Za-z] " "" symbols "${symbols}")
string(STRIP "${symbols}" symbols)
if(NOT rc EQUAL 0 OR NOT symbols STREQUAL "exports")
  message(FATAL_ERROR "the plug-in should export \"exports\" only, exports:\n${symbols}")
endif()
