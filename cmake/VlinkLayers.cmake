# Who may include whom. Every header is included by its path from the project root
# ("core/tavo_video_vlink_node.h"); host headers from include/ by their bare name. Instead of
# the project root, each target gets an include root of its own in the build tree, holding
# links to just the folders its layer may include, so the compiler refuses an include
# sideways or upward ("No such file or directory").
#
# Bottom to top: platform, trace, core, the node folders (none sees another), builder,
# adapt, tools. Tests, benchmarks and fuzzers see the whole library and reach tools/ only
# through tools/common (vlink_tool_support).
set(VLINK_NODE_FOLDERS codec render test_input camera screen background process)
set(VLINK_LAYER_platform platform)
set(VLINK_LAYER_trace ${VLINK_LAYER_platform} trace)
set(VLINK_LAYER_core ${VLINK_LAYER_trace} core)
foreach(node IN LISTS VLINK_NODE_FOLDERS)
  set(VLINK_LAYER_${node} ${VLINK_LAYER_core} ${node})
endforeach()
set(VLINK_LAYER_builder ${VLINK_LAYER_core} ${VLINK_NODE_FOLDERS} builder)
set(VLINK_LAYER_adapt ${VLINK_LAYER_builder} adapt)
set(VLINK_LAYER_tools ${VLINK_LAYER_adapt} tools)
set(VLINK_LAYER_tests ${VLINK_LAYER_adapt} tests bench fuzz)
# What tools/common gives the targets that link it.
set(VLINK_LAYER_tool_support tools/common)

# The layer of the folder the calling CMakeLists.txt sits in: its first path component.
function(vlink_layer_of_folder out)
  file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  string(REGEX REPLACE "/.*" "" layer "${rel}")
  if(NOT DEFINED VLINK_LAYER_${layer})
    message(FATAL_ERROR "Folder ${rel} has no layer in cmake/VlinkLayers.cmake")
  endif()
  set(${out} ${layer} PARENT_SCOPE)
endfunction()

# Makes (once per content) the include root of a layer and returns its path.
function(vlink_layer_root layer out)
  set(entries ${VLINK_LAYER_${layer}})
  if(NOT entries)
    message(FATAL_ERROR "No layer '${layer}' in cmake/VlinkLayers.cmake")
  endif()
  # The content is in the name: a changed table makes a new root, never edits an old one.
  string(MD5 hash "${entries}")
  string(SUBSTRING ${hash} 0 8 hash)
  set(root ${PROJECT_BINARY_DIR}/include_roots/${layer}-${hash})
  foreach(entry IN LISTS entries)
    if(NOT EXISTS ${PROJECT_SOURCE_DIR}/${entry})
      continue()
    endif()
    set(link ${root}/${entry})
    if(NOT IS_SYMLINK ${link})
      get_filename_component(parent ${link} DIRECTORY)
      file(MAKE_DIRECTORY ${parent})
      file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${entry} ${link} SYMBOLIC)
    endif()
  endforeach()
  set(${out} ${root} PARENT_SCOPE)
endfunction()

# vlink_include_root(<target> <layer> [INTERFACE <layer>])
# The target's sources see the layer's folders and the host headers; with INTERFACE, the
# targets linking it see that layer's folders too.
function(vlink_include_root target layer)
  cmake_parse_arguments(ARG "" "INTERFACE" "" ${ARGN})
  vlink_layer_root(${layer} root)
  target_include_directories(${target} PRIVATE ${root})
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
  if(ARG_INTERFACE)
    vlink_layer_root(${ARG_INTERFACE} iroot)
    target_include_directories(${target} INTERFACE ${iroot})
  endif()
endfunction()
