# scclib_platform_library(LIBRARY SDK): makes the target scclib::qx_syslog or scclib::qx_thread of the library in the
# folder SDK, which has include/ and lib/. Without an SDK the compiler's own folders are searched, as in a sysroot.
function(scclib_platform_library library sdk)
  if(TARGET scclib::${library})
    return()
  endif()
  string(REPLACE qx_thread qx-thread file ${library})
  set(places)
  if(sdk)
    set(places PATHS ${sdk} NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  endif()
  find_library(location NAMES lib${file}.so PATH_SUFFIXES lib ${places} NO_CACHE)
  find_path(headers ${library}.h PATH_SUFFIXES include ${places} NO_CACHE)
  if(NOT location OR NOT headers)
    message(FATAL_ERROR "lib${file}.so or ${library}.h is missing in \"${sdk}\": set SCC_PLATFORM_DIR to the platform's SDK")
  endif()
  add_library(scclib::${library} SHARED IMPORTED GLOBAL)
  set_target_properties(scclib::${library} PROPERTIES
    IMPORTED_LOCATION ${location}
    IMPORTED_SONAME lib${file}.so
    INTERFACE_INCLUDE_DIRECTORIES ${headers})
endfunction()
