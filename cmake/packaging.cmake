# Debian packages, built by `cmake --build --preset default --target package`:
#   libkelvo0     the shared library (the package name carries the SONAME's version)
#   libkelvo-dev  headers, the CMake package, kelvo.pc and the unversioned link name
#   kelvo-tools   every tool installed into bin/
# Dependencies on system libraries are computed from the binaries (dpkg-shlibdeps); the
# packages of one build depend on each other at exactly that version.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelvo)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kelvo maintainers <maintainers@users.noreply.c-seed-a27f9b21.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "infrastructure for real-time control processes on Linux x86-64")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL libkelvo0 libkelvo-dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# The packages' own library, for dpkg-shlibdeps resolving the tools' dependency on it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)

set(soname_package libkelvo${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBKELVO0_PACKAGE_NAME ${soname_package})
set(CPACK_DEBIAN_LIBKELVO0_PACKAGE_SECTION libs)
# A shlibs file (so that programs built against it get the right dependency) and the ldconfig
# trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_LIBKELVO0_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_COMPONENT_LIBKELVO0_DESCRIPTION
    "kelvo's shared library: periodic SCHED_FIFO threads with cooperative tasks
on shared-stack coroutines, TSC timing, time traces, plug-ins, shared memory
by topic and framed TCP.")
set(CPACK_DEBIAN_LIBKELVO-DEV_PACKAGE_NAME libkelvo-dev)
set(CPACK_DEBIAN_LIBKELVO-DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_LIBKELVO-DEV_DEPENDS libkelvo0)
set(CPACK_COMPONENT_LIBKELVO-DEV_DESCRIPTION
    "kelvo's headers, CMake package (find_package(kelvo)) and pkg-config file.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kelvo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS libkelvo0)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "kelvo-check (real-time readiness report), kelvo-latency (wake-up latency
of a periodic thread, cyclictest-style), kelvo-demo (a 1 kHz control loop)
and the other kelvo tools.")

# Every package carries its copyright notice and changelog, as Debian policy asks (a native
# package's changelog: the version has no Debian revision).
string(TIMESTAMP changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(component libkelvo0 libkelvo-dev tools)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(doc_dir ${CMAKE_CURRENT_BINARY_DIR}/debian-doc/${package})
  configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${doc_dir}/changelog @ONLY)
  add_custom_command(OUTPUT ${doc_dir}/changelog.gz
                     COMMAND gzip -n -9 -f -k ${doc_dir}/changelog
                     DEPENDS ${doc_dir}/changelog)
  add_custom_target(kelvo_debian_doc_${package} ALL DEPENDS ${doc_dir}/changelog.gz)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${doc_dir}/changelog.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

include(CPack)
