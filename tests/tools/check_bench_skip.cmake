# Configures the project as a user without the benchmark packages would: the configure must
# succeed, say which benchmarks it skips, and still build the latency tool.
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(
  COMMAND ${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}" -G "${GENERATOR}"
          -DKELVO_BUILD_TESTS=OFF -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=ON
          -DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON -DCMAKE_DISABLE_FIND_PACKAGE_Boost=ON
          -DCMAKE_DISABLE_FIND_PACKAGE_iceoryx_posh=ON
  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "configure without the benchmark packages failed:\n${out}")
endif()
foreach(expected "Google Benchmark not found \\(libbenchmark-dev\\): skipping the benchmarks"
                 "OpenSSL not found \\(libssl-dev\\): skipping the MD5 benchmark"
                 "Boost.Context not found \\(libboost-context-dev\\): skipping the aco benchmark"
                 "iceoryx not found \\(iceoryx, libiceoryx-posh-dev\\): skipping the topics comparison")
  if(NOT out MATCHES "${expected}")
    message(FATAL_ERROR "missing configure message '${expected}':\n${out}")
  endif()
endforeach()
execute_process(COMMAND ${CMAKE_COMMAND} --build "${WORK_DIR}" --target help
                OUTPUT_VARIABLE targets)
if(targets MATCHES "kelvo_cycles_bench" OR targets MATCHES "kelvo_topic_pingpong" OR
   NOT targets MATCHES "kelvo-latency")
  message(FATAL_ERROR
          "expected no Google Benchmark targets, no topics comparison and the latency tool:\n"
          "${targets}")
endif()
file(REMOVE_RECURSE "${WORK_DIR}")
