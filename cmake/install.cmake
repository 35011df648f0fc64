# What is installed: the library for authors of applications; the devkit as a component of its own.
install(TARGETS scclib EXPORT scclibTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
        NAMELINK_COMPONENT development)
install(TARGETS scclib_static EXPORT scclibTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/include/scclib.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

if(NOT SCC_PLATFORM_DIR)
  install(TARGETS qx_syslog qx_thread EXPORT scclibTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT workstation)
  install(FILES ${PROJECT_SOURCE_DIR}/platform/qx_syslog/qx_syslog.h ${PROJECT_SOURCE_DIR}/platform/qx_thread/qx_thread.h
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT workstation)
endif()

configure_file(${PROJECT_SOURCE_DIR}/cmake/scclib.pc.in ${PROJECT_BINARY_DIR}/scclib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/scclib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

install(EXPORT scclibTargets NAMESPACE scclib:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scclib COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/scclibConfig.cmake.in ${PROJECT_BINARY_DIR}/scclibConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scclib)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/scclibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/scclibConfig.cmake ${PROJECT_BINARY_DIR}/scclibConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scclib COMPONENT development)
