# The unpacking library lib7zip.so: 7z extraction on libarchive behind one C entry,
# GpcDecompressFile7z. It ships as Contents/Frameworks/lib7zip.so of the plug-in bundle, where
# the plug-in loads it at run time.
# It makes its folders with the platform's folder code (plain libc), compiled in.
add_library(gpc7zip SHARED ${GPC_SRC}/lib7zip/lib7zip.cpp ${GPC_SRC}/platform/folders_linux.cpp)
set_target_properties(gpc7zip PROPERTIES OUTPUT_NAME 7zip LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
target_include_directories(gpc7zip PUBLIC ${GPC_SRC})
# libarchive is linked in from its static library so that its malloc, calloc and realloc are
# bound to archive_memory.cpp's limit, and its umask to archive_umask.cpp's reading of it. Its
# symbols stay inside (--exclude-libs): a libarchive the browser has loaded for itself is never
# mixed with this one. What libarchive needs stays shared.
find_library(GPC_LIBARCHIVE_STATIC NAMES libarchive.a REQUIRED)
set(GPC_LIBARCHIVE_NEEDS ${LIBARCHIVE_STATIC_LIBRARIES})
list(REMOVE_ITEM GPC_LIBARCHIVE_NEEDS archive)
function(gpc_link_bounded_libarchive target)
  target_sources(${target} PRIVATE ${GPC_SRC}/lib7zip/archive_memory.cpp ${GPC_SRC}/lib7zip/archive_umask.cpp)
  target_include_directories(${target} PRIVATE ${LIBARCHIVE_INCLUDE_DIRS})
  target_link_libraries(${target} PRIVATE ${GPC_LIBARCHIVE_STATIC} ${GPC_LIBARCHIVE_NEEDS})
  target_link_options(${target} PRIVATE -Wl,--exclude-libs,libarchive.a
                      -Wl,--wrap=malloc -Wl,--wrap=calloc -Wl,--wrap=realloc -Wl,--wrap=umask)
endfunction()
gpc_link_bounded_libarchive(gpc7zip)
target_link_options(gpc7zip PRIVATE -Wl,--no-undefined)
add_custom_command(TARGET gpc7zip POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E make_directory ${GPC_BUNDLE}/Contents/Frameworks
  COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:gpc7zip> ${GPC_BUNDLE}/Contents/Frameworks/lib7zip.so
  COMMENT "Placing lib7zip.so in the plug-in bundle")
