# Installs the library for authors of applications, and the devkit as a separate component.
add_custom_target(installed DEPENDS scclib scclib_static)
install(TARGETS scclib EXPORT scclibTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
        NAMELINK_COMPONENT development)
install(TARGETS scclib_static EXPORT scclibTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/include/scclib.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
set(SCC_PC_FILES scclib)
if(TARGET scc_records)
  list(APPEND SCC_PC_FILES scc_records)
  add_dependencies(installed scc_records)
  install(TARGETS scc_records EXPORT scclibTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  install(FILES ${PROJECT_SOURCE_DIR}/include/scc_records.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
          COMPONENT development)
endif()

# The platform's own libraries stay in its SDK; pkg-config and CMake tell where that is.
set(SCC_PC_PLATFORM_LINK)
set(SCC_PC_PLATFORM_COMPILE)
set(SCC_SDK_LIBRARIES)
if(SCC_PLATFORM_DIR AND SCC_PLATFORM_LIBRARIES)
  set(SCC_SDK_LIBRARIES ${SCC_PLATFORM_LIBRARIES})
  set(SCC_PC_PLATFORM_LINK " -L${SCC_PLATFORM_DIR}/lib -Wl,-rpath-link,${SCC_PLATFORM_DIR}/lib")
  set(SCC_PC_PLATFORM_COMPILE " -I${SCC_PLATFORM_DIR}/include")
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/scclibPlatform.cmake DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scclib
          COMPONENT development)
else()
  foreach(library ${SCC_PLATFORM_LIBRARIES})
    add_dependencies(installed ${library})
    install(TARGETS ${library} EXPORT scclibTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT workstation)
    install(FILES ${PROJECT_SOURCE_DIR}/platform/${library}/${library}.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
            COMPONENT workstation)
  endforeach()
endif()

# Written at install time, since the prefix may be chosen then.
install(CODE "
  set(CMAKE_INSTALL_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(CMAKE_INSTALL_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  set(SCC_PC_PLATFORM_LINK \"${SCC_PC_PLATFORM_LINK}\")
  set(SCC_PC_PLATFORM_COMPILE \"${SCC_PC_PLATFORM_COMPILE}\")
  string(REPLACE \";\" \" \" SCC_PLATFORM_FLAGS \"${SCC_PLATFORM_FLAGS}\")
  foreach(name ${SCC_PC_FILES})
    set(pc_file \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/\${name}.pc\")
    configure_file(\"${PROJECT_SOURCE_DIR}/cmake/\${name}.pc.in\" \"\$ENV{DESTDIR}\${pc_file}\" @ONLY)
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${pc_file}\")
  endforeach()
" COMPONENT development)

install(EXPORT scclibTargets NAMESPACE scclib:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scclib COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/scclibConfig.cmake.in ${PROJECT_BINARY_DIR}/scclibConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scclib)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/scclibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/scclibConfig.cmake ${PROJECT_BINARY_DIR}/scclibConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/scclib COMPONENT development)

# The man pages of the functions are generated from the headers' comments.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND)
  set(man_maker ${PROJECT_SOURCE_DIR}/scripts/make_man_pages.py)
  set(man_stamp ${PROJECT_BINARY_DIR}/man/made)
  set(records_header)
  if(TARGET scc_records)
    set(records_header ${PROJECT_SOURCE_DIR}/include/scc_records.h)
  endif()
  add_custom_command(OUTPUT ${man_stamp}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${PROJECT_BINARY_DIR}/man
    COMMAND ${Python3_EXECUTABLE} ${man_maker} ${PROJECT_SOURCE_DIR}/include/scclib.h
            ${SCC_VERSION_SCRIPT} ${PROJECT_BINARY_DIR}/man ${records_header}
    COMMAND ${CMAKE_COMMAND} -E touch ${man_stamp}
    DEPENDS ${man_maker} ${PROJECT_SOURCE_DIR}/scripts/roff_page.py ${PROJECT_SOURCE_DIR}/include/scclib.h
            ${SCC_VERSION_SCRIPT} ${records_header}
    VERBATIM)
  add_custom_target(man_pages ALL DEPENDS ${man_stamp})
  add_dependencies(installed man_pages)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/man/man3 ${PROJECT_BINARY_DIR}/man/man7
          DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT development)
endif()

if(TARGET wireshark_dissector)
  add_dependencies(installed wireshark_dissector)
endif()

# The devkit: every program that this configuration builds, with its man page and its completion.
foreach(program sccd-dev scc-ss-dev sccctl)
  if(TARGET ${program})
    add_dependencies(installed ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT devkit)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
            COMPONENT devkit OPTIONAL)
  endif()
endforeach()
# The service that programs the kernel, for machines that forward packets.
if(TARGET scc-ss-linux)
  add_dependencies(installed scc-ss-linux)
  install(TARGETS scc-ss-linux RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT service-linux)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/man/scc-ss-linux.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8
          COMPONENT service-linux)
  install(FILES ${PROJECT_SOURCE_DIR}/devkit/linux/scc-ss-linux.service DESTINATION lib/systemd/system
          COMPONENT service-linux)
endif()
if(TARGET sccctl)
  install(FILES ${PROJECT_SOURCE_DIR}/devkit/ctl/sccctl.bash-completion
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME sccctl COMPONENT devkit)
  install(FILES ${PROJECT_SOURCE_DIR}/devkit/ctl/sccctl.zsh-completion
          DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions RENAME _sccctl COMPONENT devkit)
endif()
if(TARGET sccd-dev)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/devkit/sccd/scenarios DESTINATION ${CMAKE_INSTALL_DATADIR}/scclib
          COMPONENT devkit FILES_MATCHING PATTERN "*.json")
endif()
