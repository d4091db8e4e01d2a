# Installation of the plug-in bundle, its tools and the browsers' link to its module.
#
#   cmake --install build [--prefix DIR]
#     <prefix>/lib/talvo-gpc/talvo-gpc64.plugin/   the whole bundle, layout kept
#     <prefix>/bin/gpc-host, <prefix>/bin/tlvtracer, <prefix>/bin/gpc-pack
#     <plug-in folder>/libnpgpc.so                  a symbolic link to the installed module
#     <prefix>/share/talvo-gpc/extension/, talvo-gpc-bridge.zip   the browser bridge extension
#     <prefix>/libexec/talvo-gpc/gpc-native-host    runs gpc-host --native-messaging for a browser
#     the native-messaging host manifests naming it, for Chromium, Google Chrome and Firefox
#   cmake --build build --target uninstall   (or: cmake -P build/cmake_uninstall.cmake)
#     removes what the last install put there, and the folders it had to create once empty.
#
# The module finds its bundle through its real path, so the browsers get a link to it: its
# unpacking library and its local extension stay beside it. The plug-in folder is
# ~/.mozilla/plugins of the user who installs (GPC_INSTALL_SCOPE=user) or
# /usr/lib/mozilla/plugins (GPC_INSTALL_SCOPE=system); GPC_BROWSER_PLUGIN_DIR names another.
# The host manifests go where each browser looks for the user (~/.config/chromium/NativeMessagingHosts,
# ~/.config/google-chrome/NativeMessagingHosts, ~/.mozilla/native-messaging-hosts) or for the system
# (/etc/chromium/native-messaging-hosts, /etc/opt/chrome/native-messaging-hosts,
# /usr/lib/mozilla/native-messaging-hosts, all below GPC_NATIVE_HOST_ROOT when set).
# GPC_INSTALL_SCOPE, GPC_BROWSER_PLUGIN_DIR, GPC_NATIVE_HOST_ROOT and the prefix can also be given
# when the install script runs:
#   cmake -DGPC_INSTALL_SCOPE=system -DCMAKE_INSTALL_PREFIX=/usr -P build/cmake_install.cmake

set(GPC_INSTALL_SCOPE "user" CACHE STRING "Where the browsers' link to the module goes: user or system")
set_property(CACHE GPC_INSTALL_SCOPE PROPERTY STRINGS user system)
set(GPC_BROWSER_PLUGIN_DIR "" CACHE PATH
  "Folder of the browsers' link to the module; empty: ~/.mozilla/plugins or /usr/lib/mozilla/plugins by scope")
set(GPC_INSTALL_BUNDLE_DIR "lib/talvo-gpc" CACHE STRING "Folder of the installed bundle, below the prefix")
set(GPC_NATIVE_HOST_ROOT "" CACHE PATH "Root below which the system scope's host manifests go; empty: /")
set(GPC_BRIDGE_HOST_NAME "com.vantrel.talvo.gpc")
set(GPC_BRIDGE_CHROMIUM_ORIGIN "chrome-extension://knlfbodnojljbpfbfhefckeblhadobpa/")
set(GPC_BRIDGE_FIREFOX_ID "gpc-bridge@talvo.example")
if(NOT GPC_INSTALL_SCOPE MATCHES "^(user|system)$")
  message(FATAL_ERROR "GPC_INSTALL_SCOPE must be user or system, not \"${GPC_INSTALL_SCOPE}\"")
endif()

# Everything the install steps need to know from this configuration.
set(GPC_INSTALL_RECORD ${CMAKE_BINARY_DIR}/install_manifest_extras.cmake)
set(GPC_INSTALL_STEPS ${CMAKE_BINARY_DIR}/gpc_install_steps.cmake)
set(GPC_UNINSTALL_SCRIPT ${CMAKE_BINARY_DIR}/cmake_uninstall.cmake)

# Steps run by `cmake --install`, in the install script's own scope (so that the link can join
# CMAKE_INSTALL_MANIFEST_FILES). A step is chosen with GPC_INSTALL_STEP before the include.
file(CONFIGURE OUTPUT ${GPC_INSTALL_STEPS} @ONLY CONTENT [=[
# Generated from cmake/install.cmake: the plug-in's own install steps.
if(NOT DEFINED GPC_INSTALL_SCOPE)
  set(GPC_INSTALL_SCOPE "@GPC_INSTALL_SCOPE@")
endif()
if(NOT DEFINED GPC_BROWSER_PLUGIN_DIR)
  set(GPC_BROWSER_PLUGIN_DIR "@GPC_BROWSER_PLUGIN_DIR@")
endif()
if(NOT DEFINED GPC_NATIVE_HOST_ROOT)
  set(GPC_NATIVE_HOST_ROOT "@GPC_NATIVE_HOST_ROOT@")
endif()
set(_gpc_prefix "${CMAKE_INSTALL_PREFIX}")
get_filename_component(_gpc_prefix "${_gpc_prefix}" ABSOLUTE)
set(_gpc_bundle_source "@GPC_BUNDLE@")
set(_gpc_bundle_dir "@GPC_INSTALL_BUNDLE_DIR@")
if(NOT IS_ABSOLUTE "${_gpc_bundle_dir}")
  set(_gpc_bundle_dir "${_gpc_prefix}/${_gpc_bundle_dir}")
endif()
set(_gpc_bundle "${_gpc_bundle_dir}/talvo-gpc64.plugin")
set(_gpc_module "${_gpc_bundle}/Contents/MacOS/libnpgpc.so")

# The link's folder as the browsers see it (without DESTDIR); empty when no link is made.
set(_gpc_link_dir "${GPC_BROWSER_PLUGIN_DIR}")
if(_gpc_link_dir STREQUAL "")
  if(GPC_INSTALL_SCOPE STREQUAL "system")
    set(_gpc_link_dir "/usr/lib/mozilla/plugins")
  elseif("$ENV{DESTDIR}" STREQUAL "" AND IS_ABSOLUTE "$ENV{HOME}")
    set(_gpc_link_dir "$ENV{HOME}/.mozilla/plugins")
  endif()
endif()

# The native-messaging host: a wrapper (a manifest's "path" takes no arguments, and the browsers
# add their own, which gpc-host would refuse) and one manifest per browser folder. Folders as the
# browsers see them; none for a user when HOME is unknown or DESTDIR stages a package.
set(_gpc_host_name "@GPC_BRIDGE_HOST_NAME@")
set(_gpc_native_host "${_gpc_prefix}/libexec/talvo-gpc/gpc-native-host")
set(_gpc_chromium_hosts "")
set(_gpc_firefox_hosts "")
if(GPC_INSTALL_SCOPE STREQUAL "system")
  set(_gpc_chromium_hosts "${GPC_NATIVE_HOST_ROOT}/etc/chromium/native-messaging-hosts"
                          "${GPC_NATIVE_HOST_ROOT}/etc/opt/chrome/native-messaging-hosts")
  set(_gpc_firefox_hosts "${GPC_NATIVE_HOST_ROOT}/usr/lib/mozilla/native-messaging-hosts")
elseif("$ENV{DESTDIR}" STREQUAL "" AND IS_ABSOLUTE "$ENV{HOME}")
  set(_gpc_config "$ENV{XDG_CONFIG_HOME}")
  if(NOT IS_ABSOLUTE "${_gpc_config}")
    set(_gpc_config "$ENV{HOME}/.config")
  endif()
  set(_gpc_chromium_hosts "${_gpc_config}/chromium/NativeMessagingHosts"
                          "${_gpc_config}/google-chrome/NativeMessagingHosts")
  set(_gpc_firefox_hosts "$ENV{HOME}/.mozilla/native-messaging-hosts")
endif()
set(_gpc_host_manifests "")
foreach(_gpc_dir IN LISTS _gpc_chromium_hosts _gpc_firefox_hosts)
  list(APPEND _gpc_host_manifests "$ENV{DESTDIR}${_gpc_dir}/${_gpc_host_name}.json")
endforeach()

if(GPC_INSTALL_STEP STREQUAL "begin")
  if(NOT IS_DIRECTORY "${_gpc_bundle_source}/Contents/MacOS")
    message(FATAL_ERROR "No built bundle at ${_gpc_bundle_source}: build the project first")
  endif()
  # A CMake list splits names at ";" and does not split inside "[...]": a ";", or a bracket
  # without its pair, would cut or join the names, and the install could not be undone. A control
  # character (a line break, a tab) would break the manifests' JSON; CMake's own install takes a
  # backslash for an escape.
  string(ASCII 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21 22 23 24 25 26 27 28 29 30 31 127 _gpc_controls)
  foreach(_gpc_name "$ENV{DESTDIR}" "${CMAKE_INSTALL_PREFIX}" "${_gpc_bundle}" "${_gpc_native_host}" "${_gpc_link_dir}" ${_gpc_host_manifests})
    string(REGEX REPLACE "\\[[^][]*\\]" "" _gpc_unmatched "${_gpc_name}")
    string(FIND "${_gpc_name}" "\\" _gpc_backslash)
    if(_gpc_unmatched MATCHES "[][;${_gpc_controls}]" OR _gpc_backslash GREATER -1)
      message(FATAL_ERROR "Cannot install to ${_gpc_name}: a \";\", a bracket without its pair, a backslash or a control character")
    endif()
  endforeach()
  # Every folder that the install is about to create, so that uninstalling removes it again.
  # Folders recorded by an earlier install of this build stay recorded while they exist.
  set(GPC_CREATED_FOLDERS "")
  if(EXISTS "@GPC_INSTALL_RECORD@")
    include("@GPC_INSTALL_RECORD@")
  endif()
  # The installed bundle trusts the anchors of this build alone, not one an earlier install left,
  # and those of its last build: a list or a file changed since would not be shipped.
  # (IS_NEWER_THAN compares to the file system's resolution; it is true for a file that is missing.)
  file(READ "@CMAKE_BINARY_DIR@/gpc-anchors.list" _gpc_anchors)
  foreach(_gpc_anchor "@CMAKE_BINARY_DIR@/gpc-anchors.list" ${_gpc_anchors})
    if("${_gpc_anchor}" IS_NEWER_THAN "@CMAKE_BINARY_DIR@/gpc-anchors.stamp")
      message(FATAL_ERROR "The anchors changed since the last build (${_gpc_anchor}): build the project first")
    endif()
  endforeach()
  file(REMOVE_RECURSE "$ENV{DESTDIR}${_gpc_bundle}/Contents/Resources/Anchors")
  set(_gpc_kept "")
  foreach(_gpc_dir IN LISTS GPC_CREATED_FOLDERS)
    if(IS_DIRECTORY "${_gpc_dir}")
      list(APPEND _gpc_kept "${_gpc_dir}")
    endif()
  endforeach()
  # Listed by find, not a glob: a glob reads "[...]" in the build folder's path as a pattern.
  execute_process(COMMAND find . ! -type d -printf "%P\\n" WORKING_DIRECTORY "${_gpc_bundle_source}"
                  OUTPUT_VARIABLE _gpc_files OUTPUT_STRIP_TRAILING_WHITESPACE)
  string(REPLACE "\n" ";" _gpc_files "${_gpc_files}")
  set(_gpc_targets "$ENV{DESTDIR}${_gpc_prefix}/bin/gpc-host" "$ENV{DESTDIR}${_gpc_native_host}"
                   "$ENV{DESTDIR}${_gpc_prefix}/share/talvo-gpc/extension/manifest.json" ${_gpc_host_manifests})
  foreach(_gpc_file IN LISTS _gpc_files)
    list(APPEND _gpc_targets "$ENV{DESTDIR}${_gpc_bundle}/${_gpc_file}")
  endforeach()
  if(NOT _gpc_link_dir STREQUAL "")
    list(APPEND _gpc_targets "$ENV{DESTDIR}${_gpc_link_dir}/libnpgpc.so")
  endif()
  set(_gpc_new "")
  foreach(_gpc_target IN LISTS _gpc_targets)
    get_filename_component(_gpc_dir "${_gpc_target}" DIRECTORY)
    while(NOT EXISTS "${_gpc_dir}" AND NOT IS_SYMLINK "${_gpc_dir}" AND NOT _gpc_dir STREQUAL "")
      list(APPEND _gpc_new "${_gpc_dir}")
      get_filename_component(_gpc_dir "${_gpc_dir}" DIRECTORY)
    endwhile()
  endforeach()
  set(GPC_PENDING_FOLDERS ${_gpc_kept} ${_gpc_new})
  list(REMOVE_DUPLICATES GPC_PENDING_FOLDERS)

elseif(GPC_INSTALL_STEP STREQUAL "end")
  set(_gpc_link "")
  set(_gpc_link_target "")
  if(_gpc_link_dir STREQUAL "")
    message(STATUS "No browser plug-in folder: HOME is not set or DESTDIR is; no link made")
  else()
    set(_gpc_link "$ENV{DESTDIR}${_gpc_link_dir}/libnpgpc.so")
    if(EXISTS "${_gpc_link}" AND NOT IS_SYMLINK "${_gpc_link}")
      # Someone else's file: leave it, and let the browsers find theirs.
      message(WARNING "${_gpc_link} exists and is not a link; the browsers' link was not made")
      set(_gpc_link "")
    else()
      file(MAKE_DIRECTORY "$ENV{DESTDIR}${_gpc_link_dir}")
      message(STATUS "Installing: ${_gpc_link} -> ${_gpc_module}")
      file(CREATE_LINK "${_gpc_module}" "${_gpc_link}" RESULT _gpc_result SYMBOLIC)
      if(NOT _gpc_result STREQUAL "0")
        message(FATAL_ERROR "Cannot link ${_gpc_link}: ${_gpc_result}")
      endif()
      set(_gpc_link_target "${_gpc_module}")
      list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${_gpc_link}")
    endif()
  endif()
  # The wrapper and the manifests are written here, so they name the prefix of this install. The
  # wrapper runs the installed module, not the one of the build it came from; a prefix may hold any
  # character, so its names are quoted for the shell, and for JSON in the manifests.
  set(_gpc_wrapper "$ENV{DESTDIR}${_gpc_native_host}")
  message(STATUS "Installing: ${_gpc_wrapper}")
  string(REPLACE "'" "'\\''" _gpc_sh_host "${_gpc_prefix}/bin/gpc-host")
  string(REPLACE "'" "'\\''" _gpc_sh_module "${_gpc_module}")
  file(WRITE "${_gpc_wrapper}"
    "#!/bin/sh\n# Started by a browser for its bridge extension; the browser's arguments are not gpc-host's.\n"
    "exec '${_gpc_sh_host}' --native-messaging --plugin '${_gpc_sh_module}'\n")
  file(CHMOD "${_gpc_wrapper}" FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
       GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${_gpc_wrapper}")
  string(REPLACE "\\" "\\\\" _gpc_json_host "${_gpc_native_host}")
  string(REPLACE "\"" "\\\"" _gpc_json_host "${_gpc_json_host}")
  set(_gpc_common "\"name\": \"${_gpc_host_name}\", \"description\": \"Talvo GPC plug-in host\", \"type\": \"stdio\",\n  \"path\": \"${_gpc_json_host}\"")
  set(_gpc_chromium_allowed "\"allowed_origins\": [\"@GPC_BRIDGE_CHROMIUM_ORIGIN@\"]")
  set(_gpc_firefox_allowed "\"allowed_extensions\": [\"@GPC_BRIDGE_FIREFOX_ID@\"]")
  foreach(_gpc_browser chromium firefox)
    foreach(_gpc_dir IN LISTS _gpc_${_gpc_browser}_hosts)
      set(_gpc_manifest "$ENV{DESTDIR}${_gpc_dir}/${_gpc_host_name}.json")
      message(STATUS "Installing: ${_gpc_manifest}")
      file(WRITE "${_gpc_manifest}" "{\n  ${_gpc_common},\n  ${_gpc_${_gpc_browser}_allowed}\n}\n")
      list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${_gpc_manifest}")
    endforeach()
  endforeach()

  file(WRITE "@GPC_INSTALL_RECORD@"  # names taken as they are, whatever their characters
    "# What the last `cmake --install` of this build made besides its manifest's files.\n"
    "set(GPC_CREATED_FOLDERS [==[${GPC_PENDING_FOLDERS}]==])\n"
    "set(GPC_INSTALLED_LINK [==[${_gpc_link}]==])\n"
    "set(GPC_INSTALLED_LINK_TARGET [==[${_gpc_link_target}]==])\n"
    "set(GPC_INSTALLED_HOST_MANIFESTS [==[${_gpc_host_manifests}]==])\n"
    "set(GPC_INSTALLED_HOST_PATH [==[${_gpc_common}]==])\n")
endif()
]=])

install(CODE "set(GPC_INSTALL_STEP begin)\ninclude(\"${GPC_INSTALL_STEPS}\")")
install(DIRECTORY ${GPC_BUNDLE} DESTINATION ${GPC_INSTALL_BUNDLE_DIR} USE_SOURCE_PERMISSIONS)
install(PROGRAMS $<TARGET_FILE:gpc-host> $<TARGET_FILE:tlvtracer> $<TARGET_FILE:gpc-pack> DESTINATION bin)
# The bridge extension, as a folder a user loads and as a zip for a store.
set(GPC_BRIDGE_FILES manifest.json background.js content.js)
set(GPC_BRIDGE_ZIP ${CMAKE_BINARY_DIR}/talvo-gpc-bridge.zip)
list(TRANSFORM GPC_BRIDGE_FILES PREPEND ${PROJECT_SOURCE_DIR}/extension/ OUTPUT_VARIABLE GPC_BRIDGE_SOURCES)
add_custom_command(OUTPUT ${GPC_BRIDGE_ZIP}
  COMMAND ${CMAKE_COMMAND} -E rm -f ${GPC_BRIDGE_ZIP}
  COMMAND ${CMAKE_COMMAND} -E tar cf ${GPC_BRIDGE_ZIP} --format=zip ${GPC_BRIDGE_FILES}
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}/extension DEPENDS ${GPC_BRIDGE_SOURCES}
  COMMENT "Zipping the bridge extension" VERBATIM)
add_custom_target(bridge_zip ALL DEPENDS ${GPC_BRIDGE_ZIP})
install(FILES ${GPC_BRIDGE_SOURCES} DESTINATION share/talvo-gpc/extension)
install(FILES ${GPC_BRIDGE_ZIP} DESTINATION share/talvo-gpc)
install(CODE "set(GPC_INSTALL_STEP end)\ninclude(\"${GPC_INSTALL_STEPS}\")")

# Uninstalling: the manifest's files, the link and the host manifests only while they are still
# ours, then the folders the install created, deepest first and only when empty, so that nothing
# of a user's or of another install's goes.
file(CONFIGURE OUTPUT ${GPC_UNINSTALL_SCRIPT} @ONLY CONTENT [=[
# Generated from cmake/install.cmake: removes what `cmake --install` of this build put in place.
set(_gpc_manifest "@CMAKE_BINARY_DIR@/install_manifest.txt")
if(NOT EXISTS "${_gpc_manifest}")
  message(FATAL_ERROR "Nothing to uninstall: no ${_gpc_manifest}")
endif()
set(GPC_CREATED_FOLDERS "")
set(GPC_INSTALLED_LINK "")
set(GPC_INSTALLED_LINK_TARGET "")
set(GPC_INSTALLED_HOST_MANIFESTS "")
set(GPC_INSTALLED_HOST_PATH "")
if(EXISTS "@GPC_INSTALL_RECORD@")
  include("@GPC_INSTALL_RECORD@")
endif()

file(STRINGS "${_gpc_manifest}" _gpc_files)
foreach(_gpc_file IN LISTS _gpc_files)
  if(NOT EXISTS "${_gpc_file}" AND NOT IS_SYMLINK "${_gpc_file}")
    message(STATUS "Already gone: ${_gpc_file}")
    continue()
  endif()
  if(_gpc_file STREQUAL GPC_INSTALLED_LINK)
    set(_gpc_target "")
    if(IS_SYMLINK "${_gpc_file}")
      file(READ_SYMLINK "${_gpc_file}" _gpc_target)
    endif()
    if(NOT _gpc_target STREQUAL GPC_INSTALLED_LINK_TARGET)
      message(STATUS "Kept (no longer our link): ${_gpc_file}")
      continue()
    endif()
  endif()
  # A host manifest that another install has written since names that install's host.
  list(FIND GPC_INSTALLED_HOST_MANIFESTS "${_gpc_file}" _gpc_index)
  if(_gpc_index GREATER -1)
    file(READ "${_gpc_file}" _gpc_text)
    string(FIND "${_gpc_text}" "${GPC_INSTALLED_HOST_PATH}" _gpc_at)
    if(_gpc_at EQUAL -1)
      message(STATUS "Kept (another install's host): ${_gpc_file}")
      continue()
    endif()
  endif()
  message(STATUS "Uninstalling: ${_gpc_file}")
  file(REMOVE "${_gpc_file}")
  if(EXISTS "${_gpc_file}" OR IS_SYMLINK "${_gpc_file}")
    message(FATAL_ERROR "Cannot remove ${_gpc_file}")
  endif()
endforeach()

# A parent sorts before its children: reversed, children come first.
list(SORT GPC_CREATED_FOLDERS)
list(REVERSE GPC_CREATED_FOLDERS)
foreach(_gpc_dir IN LISTS GPC_CREATED_FOLDERS)
  if(IS_DIRECTORY "${_gpc_dir}" AND NOT IS_SYMLINK "${_gpc_dir}")
    # rmdir, not a glob and a recursive removal: a glob reads "[...]" in a name as a pattern, and
    # the kernel alone knows a folder is empty.
    execute_process(COMMAND rmdir -- "${_gpc_dir}" RESULT_VARIABLE _gpc_rmdir ERROR_QUIET)
    if(_gpc_rmdir EQUAL 0)
      message(STATUS "Removing folder: ${_gpc_dir}")
    else()
      message(STATUS "Kept (not empty, or not ours to remove): ${_gpc_dir}")
    endif()
  endif()
endforeach()
file(REMOVE "@GPC_INSTALL_RECORD@")
]=])

if(NOT TARGET uninstall)
  add_custom_target(uninstall COMMAND ${CMAKE_COMMAND} -P ${GPC_UNINSTALL_SCRIPT}
    COMMENT "Removing what cmake --install put in place" VERBATIM)
endif()
