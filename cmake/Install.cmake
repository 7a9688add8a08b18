# Install rules, the CMake package, the pkg-config file and the manual page of ksmem.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KSMEM_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/KsMemCppBinding)
set(KSMEM_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/KsMemCppBinding)

# The headers of the exported classes and what they include; the rest stays internal.
set(KSMEM_PUBLIC_HEADERS
  client/KsMEMConnection.h
  client/Exception.h
  client/KsMemBinding.h
  util/Export.h
  util/DomException.h
  util/BaseObject.h
  util/XmlStream.h
  schemas/_2009_06/base/SharedClientIDs.h)
foreach(header IN LISTS KSMEM_PUBLIC_HEADERS)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${KSMEM_INSTALL_INCLUDEDIR}/${folder})
endforeach()

install(TARGETS KsMemCppBinding KsMemBinding EXPORT KsMemCppBindingTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${KSMEM_INSTALL_INCLUDEDIR})
# Outside the system library folders, the client library finds the transport library beside it
# (LD_LIBRARY_PATH still wins, so another transport of the same name can take its place); in
# them the dynamic linker finds both without a search path of their own.
if(NOT CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
  set_target_properties(KsMemCppBinding PROPERTIES INSTALL_RPATH "$ORIGIN")
  set_target_properties(ksmem PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
endif()
install(TARGETS ksmem RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES tools/ksmem.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

install(EXPORT KsMemCppBindingTargets
  NAMESPACE KsMemCppBinding::
  DESTINATION ${KSMEM_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/KsMemCppBindingConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KsMemCppBindingConfig.cmake
  INSTALL_DESTINATION ${KSMEM_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KsMemCppBindingConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/KsMemCppBindingConfig.cmake
  ${PROJECT_BINARY_DIR}/KsMemCppBindingConfigVersion.cmake
  DESTINATION ${KSMEM_INSTALL_CMAKEDIR})

# Installed to /usr, the pkg-config file names /usr itself, so that pkg-config leaves the system
# folders out of its flags; anywhere else it finds the prefix relative to its own place, so that
# the installed tree may move. Which of the two is known only when installing.
file(RELATIVE_PATH KSMEM_PC_TO_PREFIX "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
set(KSMEM_PC_PREFIX "\${pcfiledir}/${KSMEM_PC_TO_PREFIX}")
configure_file(cmake/ksmemcppbinding.pc.in pkgconfig/relocatable/ksmemcppbinding.pc @ONLY)
set(KSMEM_PC_PREFIX /usr)
configure_file(cmake/ksmemcppbinding.pc.in pkgconfig/usr/ksmemcppbinding.pc @ONLY)
install(CODE "
  set(variant relocatable)
  if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    set(variant usr)
  endif()
  file(INSTALL DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\" TYPE FILE
       FILES \"${PROJECT_BINARY_DIR}/pkgconfig/\${variant}/ksmemcppbinding.pc\")")
