# kelvo_add_plugin(<target> <sources>...)
#
# Builds a plug-in that a kelvo host can load with PluginLoader::load: a loadable module
# (lib<target>.so), position-independent, linked against kelvo::kelvo so that it resolves the
# library's symbols against the very libkelvo.so.0 the host has loaded. The module's file name
# reaches the record through KELVO_PLUGIN_FILE_NAME.
#
# The record "exports" is exported however the source defines it (KELVO_PLUGIN, or a plain `extern
# "C" mosk::kelvo::PluginDetails exports{...};`; only an explicit hidden attribute in the source
# keeps it in), and nothing else is: the linker version script kelvoPlugin.map, which sits beside
# this file in the source tree and in the installed package, makes every other symbol local. The
# sources are compiled with default visibility because hidden visibility, decided by the compiler,
# cannot be undone at link time for a record defined without an attribute;
# -fno-semantic-interposition gives the compiler the same freedom to inline that hidden visibility
# would. A plug-in that must export more than "exports" is built with its own add_library(MODULE)
# rules.
function(kelvo_add_plugin target)
  if(NOT ARGN)
    message(FATAL_ERROR "kelvo_add_plugin(${target}): no sources given")
  endif()
  set(version_script "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/kelvoPlugin.map")
  add_library(${target} MODULE ${ARGN})
  target_link_libraries(${target} PRIVATE kelvo::kelvo)
  target_compile_features(${target} PRIVATE cxx_std_17)
  target_compile_definitions(${target}
    PRIVATE "KELVO_PLUGIN_FILE_NAME=\"$<TARGET_FILE_NAME:${target}>\"")
  target_compile_options(${target}
    PRIVATE $<$<COMPILE_LANG_AND_ID:CXX,GNU,Clang>:-fno-semantic-interposition>
            $<$<COMPILE_LANG_AND_ID:C,GNU,Clang>:-fno-semantic-interposition>)
  target_link_options(${target} PRIVATE "LINKER:--version-script=${version_script}")
  set_target_properties(${target} PROPERTIES
    PREFIX "lib"
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET default
    C_VISIBILITY_PRESET default
    VISIBILITY_INLINES_HIDDEN ON
    LINK_DEPENDS "${version_script}")
endfunction()
