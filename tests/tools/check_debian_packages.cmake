# Builds the Debian packages from the build tree, checks their names and dependencies, extracts
# them into a scratch root (dpkg-deb -x) and builds and runs the consumer project against that
# root, through find_package(kelvo) and through pkg-config, and the consumer that derives from
# every polymorphic class of the packaged library. lintian, when installed, must
# report no errors.
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE "${WORK_DIR}")
set(root "${WORK_DIR}/root")

include(${CMAKE_CURRENT_LIST_DIR}/../install/consumer_checks.cmake)

run(cpack --config "${BUILD_DIR}/CPackConfig.cmake" -B "${WORK_DIR}/packages")
file(GLOB debs "${WORK_DIR}/packages/*.deb")
set(shlibdeps_found FALSE)
foreach(package libkelvo0 libkelvo-dev kelvo-tools)
  file(GLOB deb "${WORK_DIR}/packages/${package}_${VERSION}_amd64.deb")
  if(NOT deb)
    message(FATAL_ERROR "package ${package} not built; built: ${debs}")
  endif()
  run(dpkg-deb -f "${deb}" Depends)
  set(depends_${package} "${output}")
  run(dpkg-deb -x "${deb}" "${root}")
endforeach()
# Computed from the binaries: the C library; and the packages depend on the library package
# of the same build.
foreach(package libkelvo0 kelvo-tools)
  if(NOT depends_${package} MATCHES "libc6 \\(>= ")
    message(FATAL_ERROR "${package} lacks the computed libc6 dependency: ${depends_${package}}")
  endif()
endforeach()
foreach(package libkelvo-dev kelvo-tools)
  if(NOT depends_${package} MATCHES "libkelvo0 \\(= ${VERSION}\\)")
    message(FATAL_ERROR "${package} does not depend on libkelvo0 ${VERSION}: "
                        "${depends_${package}}")
  endif()
endforeach()
foreach(file usr/lib/libkelvo.so.0 usr/lib/libkelvo.so usr/include/mosk/kelvo.h
        usr/lib/cmake/kelvo/kelvoConfig.cmake usr/lib/pkgconfig/kelvo.pc usr/bin/kelvo-check
        usr/share/doc/libkelvo0/copyright)
  if(NOT EXISTS "${root}/${file}")
    message(FATAL_ERROR "not in the packages: ${file}")
  endif()
endforeach()

# The consumer project against the extracted root.
set(ENV{LD_LIBRARY_PATH} "${root}/usr/lib")
check_consumer("${root}/usr" "${root}/usr/lib")
check_deriving_consumer("${root}/usr" "${root}/usr/lib/libkelvo.so.0")
# A packaged tool finds the packaged library beside it, without LD_LIBRARY_PATH.
unset(ENV{LD_LIBRARY_PATH})
run(${CMAKE_COMMAND} -E env LD_TRACE_LOADED_OBJECTS=1 "${root}/usr/bin/kelvo-check")
if(NOT output MATCHES "libkelvo.so.0 => ${root}/usr/bin/../lib/libkelvo.so.0")
  message(FATAL_ERROR "packaged kelvo-check does not load the packaged library:\n${output}")
endif()

find_program(LINTIAN lintian)
if(LINTIAN)
  execute_process(COMMAND ${LINTIAN} --fail-on error ${debs} RESULT_VARIABLE rc
                  OUTPUT_VARIABLE out ERROR_VARIABLE out)
  message(STATUS "lintian:\n${out}")
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "lintian reports errors")
  endif()
else()
  message(STATUS "lintian not installed: package lint skipped")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
