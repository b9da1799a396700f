# What `cmake --install` puts in a prefix, the package files a host builds against, and the
# Debian package. Everything the install needs to know about the tree is in this file.
#
#   lib/        libtavo_video_vlink.so, the platform library libtavo_video_adapt_common.so,
#               the two libraries the virtual background loads by name, the file camera
#   include/tavo_video/   the host headers
#   bin/        vlink_host
#   share/tavo_video/     cfg/ (segmentation models), the host's test picture and clip
#   lib/cmake/TavoVideoVlink/, lib/pkgconfig/tavo_video_vlink.pc
#
# Run paths are relative ($ORIGIN), and the platform library finds share/tavo_video/cfg from
# where it lies, so a prefix can be moved after the install.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VLINK_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/tavo_video)
set(VLINK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/TavoVideoVlink)
set(VLINK_INSTALL_DATADIR ${CMAKE_INSTALL_DATADIR}/tavo_video)
set(VLINK_INSTALL_CFGDIR ${VLINK_INSTALL_DATADIR}/cfg)

# The configuration directory as seen from the installed platform library.
file(RELATIVE_PATH VLINK_CFG_FROM_LIBRARY /${CMAKE_INSTALL_LIBDIR} /${VLINK_INSTALL_CFGDIR})
target_compile_definitions(tavo_video_adapt_common PRIVATE
  TAVO_OM_CFG_FROM_LIBRARY="${VLINK_CFG_FROM_LIBRARY}")

# The host headers as a target of their own.
add_library(tavo_video_vlink_headers INTERFACE)
target_include_directories(tavo_video_vlink_headers INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${VLINK_INSTALL_INCLUDEDIR}>)
set_target_properties(tavo_video_vlink_headers PROPERTIES EXPORT_NAME headers)
set_target_properties(tavo_video_adapt_common PROPERTIES EXPORT_NAME platform)
set_target_properties(tavo_video_vlink PROPERTIES EXPORT_NAME vlink)
# A host that links the library reads frames through the platform library's buffer class.
target_link_libraries(tavo_video_vlink INTERFACE tavo_video_vlink_headers tavo_video_adapt_common)

# Inside the build the platform library hands its users the source tree's folders and the
# bounds-checked string library; an installed host gets only the host headers.
get_target_property(vlink_platform_includes tavo_video_adapt_common INTERFACE_INCLUDE_DIRECTORIES)
list(TRANSFORM vlink_platform_includes PREPEND "$<BUILD_INTERFACE:")
list(TRANSFORM vlink_platform_includes APPEND ">")
set_property(TARGET tavo_video_adapt_common PROPERTY INTERFACE_INCLUDE_DIRECTORIES
  ${vlink_platform_includes} $<INSTALL_INTERFACE:${VLINK_INSTALL_INCLUDEDIR}>)
get_target_property(vlink_platform_links tavo_video_adapt_common INTERFACE_LINK_LIBRARIES)
set(vlink_exported_links)
foreach(item IN LISTS vlink_platform_links)
  if(item STREQUAL "Threads::Threads" OR item STREQUAL "${CMAKE_DL_LIBS}")
    list(APPEND vlink_exported_links ${item})
  else()
    list(APPEND vlink_exported_links "$<BUILD_INTERFACE:${item}>")
  endif()
endforeach()
set_property(TARGET tavo_video_adapt_common PROPERTY INTERFACE_LINK_LIBRARIES
  ${vlink_exported_links})

# Run paths: libraries find each other beside themselves, programs in ../lib.
foreach(target tavo_computing_client tavo_video_opencv_wrapper vlink_fake_camera)
  set_property(TARGET ${target} APPEND PROPERTY INSTALL_RPATH "\$ORIGIN")
endforeach()
file(RELATIVE_PATH vlink_lib_from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_property(TARGET vlink_host APPEND PROPERTY INSTALL_RPATH "\$ORIGIN/${vlink_lib_from_bin}")

install(TARGETS tavo_video_vlink tavo_video_adapt_common tavo_video_vlink_headers
  EXPORT TavoVideoVlinkTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS tavo_computing_client tavo_video_opencv_wrapper vlink_fake_camera
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS vlink_host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${VLINK_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(FILES ${VLINK_TEST_PATTERN} ${VLINK_CAMERA_CLIP} ${VLINK_CAMERA_BACKGROUND}
  DESTINATION ${VLINK_INSTALL_DATADIR})

# The segmentation models scripts/install-models.sh put in the build machine's configuration
# directory. Without them the installed virtual background passes frames through.
set(VLINK_MODEL_CFG_DIR "$ENV{TAVO_OM_CFG_PATH}" CACHE PATH
  "Configuration directory whose models the install copies (empty: the platform default)")
if(VLINK_MODEL_CFG_DIR)
  set(vlink_model_source ${VLINK_MODEL_CFG_DIR})
else()
  set(vlink_model_source /usr/local/share/tavo_video/cfg)
endif()
set(vlink_model_folder computing/arm64/Virtualbackground)
if(IS_DIRECTORY ${vlink_model_source}/${vlink_model_folder})
  install(DIRECTORY ${vlink_model_source}/${vlink_model_folder}/
    DESTINATION ${VLINK_INSTALL_CFGDIR}/${vlink_model_folder}
    FILES_MATCHING PATTERN "output_ppsegv2_*")
else()
  message(WARNING "No segmentation models in ${vlink_model_source}/${vlink_model_folder} "
                  "(scripts/install-models.sh puts them there): the install will have none")
endif()

# find_package(TavoVideoVlink): TavoVideoVlink::vlink (the library, with the headers and
# the platform library), TavoVideoVlink::headers, TavoVideoVlink::platform.
install(EXPORT TavoVideoVlinkTargets NAMESPACE TavoVideoVlink::
  DESTINATION ${VLINK_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TavoVideoVlinkConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TavoVideoVlinkConfig.cmake INSTALL_DESTINATION ${VLINK_INSTALL_CMAKEDIR}
  PATH_VARS VLINK_INSTALL_CFGDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TavoVideoVlinkConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TavoVideoVlinkConfig.cmake
  ${PROJECT_BINARY_DIR}/TavoVideoVlinkConfigVersion.cmake DESTINATION ${VLINK_INSTALL_CMAKEDIR})

# pkg-config: paths from the .pc file's own place, so a moved prefix keeps working.
file(RELATIVE_PATH VLINK_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VLINK_PC_PREFIX "${VLINK_PC_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavo_video_vlink.pc.in
  ${PROJECT_BINARY_DIR}/tavo_video_vlink.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavo_video_vlink.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The Debian package: `cpack -G DEB` in the build folder.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavo-video-vlink)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "tavo video team <video@tavo.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Video links for a conferencing terminal's media process (host-loaded library)")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# The runtime packages come from the shared objects' needs (dpkg-shlibdeps).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS OFF)
include(CPack)
