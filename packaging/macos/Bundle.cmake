# The program on a Mac: the app bundle "Lanternmoor Pro.app", with its resources in
# Contents/Resources and no Dock icon. scripts/build-macos.sh builds it and adds Qt with
# macdeployqt; nothing here runs on Linux.
target_sources(lanternmoor-pro PRIVATE ${CMAKE_SOURCE_DIR}/packaging/macos/LanternmoorPro.icns)
set_source_files_properties(${CMAKE_SOURCE_DIR}/packaging/macos/LanternmoorPro.icns PROPERTIES MACOSX_PACKAGE_LOCATION Resources)
# The shipped resources as Resources.cmake makes them: the guide, and the workspace service whole.
foreach(resource IN LISTS LM_SHIPPED_RESOURCES)
  get_filename_component(folder ${resource} DIRECTORY)
  target_sources(lanternmoor-pro PRIVATE ${LM_SHARE_DIR}/${resource})
  set_source_files_properties(${LM_SHARE_DIR}/${resource} PROPERTIES GENERATED TRUE MACOSX_PACKAGE_LOCATION Resources/${folder})
endforeach()
set_target_properties(lanternmoor-pro PROPERTIES
  OUTPUT_NAME "Lanternmoor Pro"
  MACOSX_BUNDLE TRUE
  MACOSX_BUNDLE_INFO_PLIST ${CMAKE_SOURCE_DIR}/packaging/macos/Info.plist.in)
set(CMAKE_OSX_DEPLOYMENT_TARGET 13.0 CACHE STRING "The oldest macOS the bundle runs on")
install(TARGETS lanternmoor-pro BUNDLE DESTINATION .)
