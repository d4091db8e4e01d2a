# The unpacking library lib7zip.so: 7z extraction on libarchive behind one C entry,
# GpcDecompressFile7z. It ships as Contents/Frameworks/lib7zip.so of the plug-in bundle, where
# the plug-in loads it at run time.
# It makes its folders with the platform's folder code (plain libc), compiled in.
add_library(gpc7zip SHARED ${GPC_SRC}/lib7zip/lib7zip.cpp ${GPC_SRC}/platform/folders_linux.cpp)
set_target_properties(gpc7zip PROPERTIES OUTPUT_NAME 7zip LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
target_include_directories(gpc7zip PUBLIC ${GPC_SRC})
target_link_libraries(gpc7zip PRIVATE PkgConfig::LIBARCHIVE)
target_link_options(gpc7zip PRIVATE -Wl,--no-undefined)
add_custom_command(TARGET gpc7zip POST_BUILD
  COMMAND ${CMAKE_COMMAND} -E make_directory ${GPC_BUNDLE}/Contents/Frameworks
  COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:gpc7zip> ${GPC_BUNDLE}/Contents/Frameworks/lib7zip.so
  COMMENT "Placing lib7zip.so in the plug-in bundle")
