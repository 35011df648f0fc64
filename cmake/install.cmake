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

# The manual's pages of functions are made from the header's comments.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND)
  set(man_maker ${PROJECT_SOURCE_DIR}/scripts/make_man_pages.py)
  set(man_stamp ${PROJECT_BINARY_DIR}/man/made)
  add_custom_command(OUTPUT ${man_stamp}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/man
    COMMAND ${Python3_EXECUTABLE} ${man_maker} ${PROJECT_SOURCE_DIR}/include/scclib.h
            ${PROJECT_SOURCE_DIR}/src/scclib.map ${PROJECT_BINARY_DIR}/man
    COMMAND ${CMAKE_COMMAND} -E touch ${man_stamp}
    DEPENDS ${man_maker} ${PROJECT_SOURCE_DIR}/scripts/roff_page.py ${PROJECT_SOURCE_DIR}/include/scclib.h
            ${PROJECT_SOURCE_DIR}/src/scclib.map
    VERBATIM)
  add_custom_target(man_pages ALL DEPENDS ${man_stamp})
  install(DIRECTORY ${PROJECT_BINARY_DIR}/man/man3 ${PROJECT_BINARY_DIR}/man/man7
          DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
endif()

# The devkit: every program that this configuration builds, with its page and its completion.
foreach(program sccd-dev scc-ss-dev sccctl sccd-top)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT devkit)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
            COMPONENT devkit OPTIONAL)
  endif()
endforeach()
if(TARGET sccctl)
  install(FILES ${PROJECT_SOURCE_DIR}/devkit/ctl/sccctl.bash-completion
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME sccctl COMPONENT devkit)
endif()
