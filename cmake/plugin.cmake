# The plug-in: its code as a static library (so that tests can link it) and the module
# libnpgpc.so that a browser loads, assembled into the bundle build/talvo-gpc64.plugin/.
add_library(gpcplugincore STATIC ${GPC_PLUGIN_SOURCES})
target_include_directories(gpcplugincore PUBLIC ${GPC_SRC} ${GPC_SRC}/plugin/plugin)
target_link_libraries(gpcplugincore PUBLIC gpccommon)

add_library(npgpc SHARED ${GPC_SRC}/plugin/plugin/module_anchor.c)
target_link_libraries(npgpc PRIVATE "$<LINK_LIBRARY:WHOLE_ARCHIVE,gpcplugincore>"
  "$<LINK_LIBRARY:WHOLE_ARCHIVE,gpccommon>")
target_link_options(npgpc PRIVATE -Wl,-Bsymbolic -Wl,--no-undefined)
set_target_properties(npgpc PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

set(GPC_BUNDLE ${CMAKE_BINARY_DIR}/talvo-gpc64.plugin)
add_custom_command(TARGET npgpc POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E make_directory ${GPC_BUNDLE}/Contents/MacOS ${GPC_BUNDLE}/Contents/Resources
  COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:npgpc> ${GPC_BUNDLE}/Contents/MacOS/libnpgpc.so
  COMMENT "Assembling the plug-in bundle")
