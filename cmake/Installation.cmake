# What users get. `cmake --install` puts it into a folder, and the debug information of each module beside it, in files
# that the modules name. `cpack` puts it into a zip file, without those.

set(dlls vexelstorage vxdiagnostics)
if(NOT VEXEL_FRAMEWORK STREQUAL "MFC")
  list(APPEND dlls vxframework)
endif()

install(TARGETS vexelstorage vxframework vxdiagnostics vexel_headers EXPORT VexelStorage
  RUNTIME COMPONENT Runtime ARCHIVE COMPONENT Development)
install(TARGETS vexel COMPONENT Runtime)

# The runtime's DLLs come with symbols of their own, which are nine tenths of them.
if(MINGW)
  list(TRANSFORM VEXEL_RUNTIME_DLLS PREPEND ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/ OUTPUT_VARIABLE runtime_dlls)
  install(PROGRAMS ${runtime_dlls} DESTINATION bin COMPONENT Runtime)
  install(CODE "
    function(vexel_process)
      execute_process(COMMAND \${ARGN} COMMAND_ERROR_IS_FATAL ANY)
    endfunction()
    set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin\")
    foreach(dll ${VEXEL_RUNTIME_DLLS})
      vexel_process(${CMAKE_STRIP} --strip-unneeded \"\${folder}/\${dll}\")
    endforeach()" COMPONENT Runtime)
  set(debug_folder ${CMAKE_BINARY_DIR}/debug-information)
  foreach(module ${dlls} vexel)
    install(CODE "
      set(module \"\${folder}/$<TARGET_FILE_NAME:${module}>\")
      set(information \"${debug_folder}/$<TARGET_FILE_NAME:${module}>.debug\")
      file(MAKE_DIRECTORY \"${debug_folder}\")
      vexel_process(${CMAKE_OBJCOPY} --only-keep-debug \"\${module}\" \"\${information}\")
      vexel_process(${CMAKE_OBJCOPY} --strip-all \"--add-gnu-debuglink=\${information}\" \"\${module}\")"
      COMPONENT Runtime)
  endforeach()
  install(DIRECTORY ${debug_folder}/ DESTINATION bin COMPONENT Debug)
else()
  foreach(module ${dlls} vexel)
    install(FILES $<TARGET_PDB_FILE:${module}> DESTINATION bin COMPONENT Debug OPTIONAL)
  endforeach()
endif()

install(DIRECTORY include/vexel TYPE INCLUDE COMPONENT Development)
install(DIRECTORY examples docs DESTINATION . COMPONENT Development)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md THIRD-PARTY.md DESTINATION . COMPONENT Development)
install(EXPORT VexelStorage NAMESPACE Vexel:: DESTINATION lib/cmake/VexelStorage FILE VexelStorageConfig.cmake
  COMPONENT Development)
write_basic_package_version_file(VexelStorageConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VexelStorageConfigVersion.cmake DESTINATION lib/cmake/VexelStorage
  COMPONENT Development)
configure_file(cmake/vexelstorage.pc.in vexelstorage.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vexelstorage.pc DESTINATION lib/pkgconfig COMPONENT Development)

# The licences of all that the modules carry, as those who gave it state them.
install(FILES THIRD-PARTY.md DESTINATION licences COMPONENT Runtime)
install(FILES ${VEXEL_7ZIP_SOURCE_DIR}/DOC/License.txt DESTINATION licences RENAME 7-zip.txt COMPONENT Runtime)
install(FILES ${VEXEL_7ZIP_SOURCE_DIR}/DOC/copying.txt DESTINATION licences RENAME 7-zip-lgpl.txt COMPONENT Runtime)
foreach(package libz-mingw-w64-dev gcc-mingw-w64-x86-64-posix-runtime mingw-w64-common libcli11-dev nlohmann-json3-dev)
  install(FILES /usr/share/doc/${package}/copyright DESTINATION licences RENAME ${package}.txt COMPONENT Runtime
    OPTIONAL) # other systems have them elsewhere
endforeach()

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME vexel-storage-${PROJECT_VERSION}-win64)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
include(CPack)
