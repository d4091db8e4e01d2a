# The plug-in: its code as a static library (so that tests can link it) and the module
# libnpgpc.so that a browser loads, assembled into the bundle build/talvo-gpc64.plugin/.
add_library(gpcplugincore STATIC ${GPC_PLUGIN_SOURCES})
target_include_directories(gpcplugincore PUBLIC ${GPC_SRC})
target_link_libraries(gpcplugincore PUBLIC gpccommon)

add_library(npgpc SHARED ${GPC_SRC}/plugin/plugin/module_anchor.c)
# Every object of the plug-in and of the shared code goes in (some are reached only by the
# browser or by the extension); the libraries' own dependencies follow as usual.
target_link_libraries(npgpc PRIVATE
  -Wl,--whole-archive $<TARGET_FILE:gpcplugincore> $<TARGET_FILE:gpccommon> -Wl,--no-whole-archive
  gpcplugincore)
add_dependencies(npgpc gpcplugincore gpccommon)
target_link_options(npgpc PRIVATE -Wl,-Bsymbolic -Wl,--no-undefined)
set_target_properties(npgpc PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

# Bundle metadata and the message tables, one per language name the page can ask for.
if(PROJECT_VERSION)
  set(GPC_PLUGIN_VERSION ${PROJECT_VERSION})
else()
  set(GPC_PLUGIN_VERSION 1.0.0)
endif()
set(GPC_PLUGIN_NAME "Talvo GPC")
set(GPC_PLUGIN_DESCRIPTION "Talvo GPC plug-in: sets up and drives the Talvo meeting client extension")
set(GPC_BUNDLE ${CMAKE_BINARY_DIR}/talvo-gpc64.plugin)
configure_file(${CMAKE_SOURCE_DIR}/resources/Info.plist.in ${GPC_BUNDLE}/Contents/Info.plist @ONLY)

set(GPC_LANGUAGE_NAMES English zh_CN zh_TW Japanese ko French German Italian Spanish es_419 sv Dutch
  pt ru tr da fi pl)
set(GPC_BUNDLE_RESOURCES)
foreach(language ${GPC_LANGUAGE_NAMES})
  set(table Localizable_${language}.strings)
  add_custom_command(OUTPUT ${GPC_BUNDLE}/Contents/Resources/${table}
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${CMAKE_SOURCE_DIR}/resources/${table}
            ${GPC_BUNDLE}/Contents/Resources/${table}
    DEPENDS ${CMAKE_SOURCE_DIR}/resources/${table})
  list(APPEND GPC_BUNDLE_RESOURCES ${GPC_BUNDLE}/Contents/Resources/${table})
endforeach()
# The trust anchors of a hardened build: DER certificates (a root, an intermediate or the signer
# itself) given by absolute path, shipped as Contents/Resources/Anchors/<name>.der. The folder is
# made anew whenever the list or a file changes, so an anchor dropped from the list goes.
set(GPC_ANCHORS "" CACHE STRING "DER certificates a hardened build trusts (absolute paths, ;-separated)")
set(GPC_ANCHOR_NAMES)
foreach(anchor ${GPC_ANCHORS})
  get_filename_component(name ${anchor} NAME)
  if(NOT IS_ABSOLUTE "${anchor}" OR NOT EXISTS "${anchor}" OR NOT name MATCHES "\\.der$")
    message(FATAL_ERROR "GPC_ANCHORS: ${anchor} is not the absolute path of a DER certificate file (*.der)")
  endif()
  if(name IN_LIST GPC_ANCHOR_NAMES)
    message(FATAL_ERROR "GPC_ANCHORS: two anchors named ${name}; one would replace the other")
  endif()
  list(APPEND GPC_ANCHOR_NAMES ${name})
endforeach()
set(GPC_ANCHORS_FOLDER ${GPC_BUNDLE}/Contents/Resources/Anchors)
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/gpc-anchors.list CONTENT "${GPC_ANCHORS}")  # rewritten only when changed
set(GPC_COPY_ANCHORS)
if(GPC_ANCHORS)
  set(GPC_COPY_ANCHORS COMMAND ${CMAKE_COMMAND} -E make_directory ${GPC_ANCHORS_FOLDER}
                       COMMAND ${CMAKE_COMMAND} -E copy ${GPC_ANCHORS} ${GPC_ANCHORS_FOLDER}/)
endif()
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/gpc-anchors.stamp
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${GPC_ANCHORS_FOLDER}
  ${GPC_COPY_ANCHORS}
  COMMAND ${CMAKE_COMMAND} -E touch ${CMAKE_BINARY_DIR}/gpc-anchors.stamp
  DEPENDS ${GPC_ANCHORS} ${CMAKE_BINARY_DIR}/gpc-anchors.list)
list(APPEND GPC_BUNDLE_RESOURCES ${CMAKE_BINARY_DIR}/gpc-anchors.stamp)
add_custom_target(gpcbundleresources ALL DEPENDS ${GPC_BUNDLE_RESOURCES})
add_dependencies(npgpc gpcbundleresources)

add_custom_command(TARGET npgpc POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E make_directory ${GPC_BUNDLE}/Contents/MacOS ${GPC_BUNDLE}/Contents/Resources
  COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:npgpc> ${GPC_BUNDLE}/Contents/MacOS/libnpgpc.so
  COMMENT "Assembling the plug-in bundle")
