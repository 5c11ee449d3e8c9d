# Helpers of the installation checks (cmake -P scripts): running a command that must succeed, and
# building and running the consumer project against an installed or extracted kelvo.

# Runs the command; fails the check with its output unless it exits 0. The output is left in
# `output`.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

# Builds and runs tests/install/consumer against the kelvo under `prefix` (its library in
# `libdir`), once through find_package(kelvo) and once through pkg-config. Needs SOURCE_DIR,
# WORK_DIR and GENERATOR.
function(check_consumer prefix libdir)
  run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/install/consumer" -B "${WORK_DIR}/consumer"
      -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${prefix}")
  run(${CMAKE_COMMAND} --build "${WORK_DIR}/consumer")
  run("${WORK_DIR}/consumer/consumer")

  find_program(PKG_CONFIG pkg-config REQUIRED)
  set(ENV{PKG_CONFIG_PATH} "${libdir}/pkgconfig")
  run(${PKG_CONFIG} --cflags --libs kelvo)
  separate_arguments(flags UNIX_COMMAND "${output}")
  run(c++ -std=c++17 "${SOURCE_DIR}/tests/install/consumer/main.cpp" ${flags}
      "-Wl,-rpath,${libdir}" -o "${WORK_DIR}/consumer-pkgconfig")
  run("${WORK_DIR}/consumer-pkgconfig")
endfunction()

# Builds and runs tests/install/abi_consumer, which derives from the library's polymorphic
# classes, against the kelvo under `prefix`, and fails unless it derives from every class whose
# vtable `library` exports. Needs SOURCE_DIR, WORK_DIR and GENERATOR.
function(check_deriving_consumer prefix library)
  run(${CMAKE_COMMAND} -S "${SOURCE_DIR}/tests/install/abi_consumer" -B "${WORK_DIR}/abi_consumer"
      -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${prefix}")
  run(${CMAKE_COMMAND} --build "${WORK_DIR}/abi_consumer")
  run("${WORK_DIR}/abi_consumer/abi_consumer")
  string(REGEX MATCHALL "derives from: [^\n]+" derived "${output}")
  list(TRANSFORM derived REPLACE "^derives from: " "")

  run(nm -D --defined-only -C "${library}")
  string(REGEX MATCHALL "vtable for mosk::kelvo::[^@\n]+" classes "${output}")
  list(TRANSFORM classes REPLACE "^vtable for " "")
  list(REMOVE_DUPLICATES classes)
  if(classes STREQUAL "")
    message(FATAL_ERROR "no exported vtable in ${library}")
  endif()
  set(missing "")
  foreach(class IN LISTS classes)
    list(FIND derived "${class}" index)
    if(index EQUAL -1)
      list(APPEND missing "${class}")
    endif()
  endforeach()
  if(missing)
    list(JOIN missing "\n  " missing)
    message(FATAL_ERROR "tests/install/abi_consumer does not derive from these polymorphic classes "
                        "of the library; add a derived class for each:\n  ${missing}")
  endif()
endfunction()
