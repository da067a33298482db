# The program on a Mac: the app bundle "Lanternmoor Pro.app", with its resources in
# Contents/Resources and no Dock icon. scripts/build-macos.sh builds it and adds Qt with
# macdeployqt; nothing here runs on Linux.
set(LM_BUNDLE_RESOURCES
  "${CMAKE_SOURCE_DIR}/resources/安装与使用.html"
  ${CMAKE_SOURCE_DIR}/packaging/macos/LanternmoorPro.icns)
target_sources(lanternmoor-pro PRIVATE ${LM_BUNDLE_RESOURCES})
# The workspace service whole: its entry, its modules, its page and the page's libraries.
file(GLOB_RECURSE LM_APP_FILES CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}/resources/app ${CMAKE_SOURCE_DIR}/resources/app/*)
foreach(app_file IN LISTS LM_APP_FILES)
  get_filename_component(app_folder ${app_file} DIRECTORY)
  target_sources(lanternmoor-pro PRIVATE ${CMAKE_SOURCE_DIR}/resources/app/${app_file})
  set_source_files_properties(${CMAKE_SOURCE_DIR}/resources/app/${app_file}
    PROPERTIES MACOSX_PACKAGE_LOCATION Resources/app/${app_folder})
endforeach()
set_source_files_properties("${CMAKE_SOURCE_DIR}/resources/安装与使用.html"
  ${CMAKE_SOURCE_DIR}/packaging/macos/LanternmoorPro.icns PROPERTIES MACOSX_PACKAGE_LOCATION Resources)
set_target_properties(lanternmoor-pro PROPERTIES
  OUTPUT_NAME "Lanternmoor Pro"
  MACOSX_BUNDLE TRUE
  MACOSX_BUNDLE_INFO_PLIST ${CMAKE_SOURCE_DIR}/packaging/macos/Info.plist.in)
set(CMAKE_OSX_DEPLOYMENT_TARGET 13.0 CACHE STRING "The oldest macOS the bundle runs on")
install(TARGETS lanternmoor-pro BUNDLE DESTINATION .)
