# The program on Linux: the install rules (the resources as Resources.cmake ships them), and the
# Debian package made from them (cpack in the build folder, or scripts/package-deb.sh).

add_dependencies(lanternmoor-pro lanternmoor_resources)

include(GNUInstallDirs)
install(TARGETS lanternmoor-pro RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# File by file: whatever else an older build left in the share folder is not shipped.
foreach(resource IN LISTS LM_SHIPPED_RESOURCES)
  get_filename_component(folder ${resource} DIRECTORY)
  install(FILES ${LM_SHARE_DIR}/${resource} DESTINATION ${CMAKE_INSTALL_DATADIR}/lanternmoor-pro/${folder})
endforeach()
install(FILES ${CMAKE_SOURCE_DIR}/packaging/lanternmoor-pro.desktop DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/lanternmoor-pro.svg
  DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)

# What Debian asks of every package's documentation: the copyright, and a compressed changelog,
# whose newest entry is the version being packaged.
file(STRINGS ${CMAKE_SOURCE_DIR}/packaging/debian/changelog LM_CHANGELOG_HEAD LIMIT_COUNT 1)
if(NOT LM_CHANGELOG_HEAD MATCHES "^lanternmoor-pro \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog has no entry for ${PROJECT_VERSION} at its top")
endif()
set(LM_CHANGELOG ${CMAKE_BINARY_DIR}/packaging/changelog.gz)
add_custom_command(OUTPUT ${LM_CHANGELOG}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/packaging
  COMMAND gzip -9 -n -c ${CMAKE_SOURCE_DIR}/packaging/debian/changelog > ${LM_CHANGELOG}
  DEPENDS ${CMAKE_SOURCE_DIR}/packaging/debian/changelog)
add_custom_target(lanternmoor_changelog ALL DEPENDS ${LM_CHANGELOG})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/debian/copyright ${LM_CHANGELOG}
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/lanternmoor-pro)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lanternmoor-pro)
set(CPACK_PACKAGE_VENDOR "LanternmoorPro")
set(CPACK_PACKAGE_CONTACT "LanternmoorPro maintainers <maintainers@lanternmoor.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "launcher for the local Lanternmoor research workspace")
set(CPACK_PACKAGE_DESCRIPTION "Lanternmoor Pro starts the research workspace service that ships with it\n\
under the user's own Node.js (22.13 or newer), waits until it answers on\n\
http://127.0.0.1:18765/, and opens it in the browser. It stays in the\n\
system tray and stops the service when it quits. The workspace uses the\n\
user's own Codex command-line tool, which is not part of this package.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Qt loads its platform and SVG plugins at run time, where dpkg-shlibdeps cannot see them.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins, libqt6svg6, xdg-utils")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "qt6-wayland")
# The user's own, never installed on their behalf.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "nodejs (>= 22.13)")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
