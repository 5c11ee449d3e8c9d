# kelvo_add_plugin(<target> <sources>...)
#
# Builds a plug-in that a kelvo host can load with PluginLoader::load: a loadable module
# (lib<target>.so), position-independent, with hidden visibility so that only the "exports"
# record written by KELVO_PLUGIN leaves it, linked against kelvo::kelvo so that it resolves
# the library's symbols against the very libkelvo.so.0 the host has loaded. The module's file
# name reaches the record through KELVO_PLUGIN_FILE_NAME.
function(kelvo_add_plugin target)
  if(NOT ARGN)
    message(FATAL_ERROR "kelvo_add_plugin(${target}): no sources given")
  endif()
  add_library(${target} MODULE ${ARGN})
  target_link_libraries(${target} PRIVATE kelvo::kelvo)
  target_compile_features(${target} PRIVATE cxx_std_17)
  target_compile_definitions(${target}
    PRIVATE "KELVO_PLUGIN_FILE_NAME=\"$<TARGET_FILE_NAME:${target}>\"")
  set_target_properties(${target} PROPERTIES
    PREFIX "lib"
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    C_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
endfunction()
