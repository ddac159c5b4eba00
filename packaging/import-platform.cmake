# Defines kelmor::platform from a directory of a gateway's maker: the contract's headers in include/kelmor/,
# and libkelmor-platform.so in lib/. Without the library the host process must supply everything that the
# headers declare. `flaw` receives a message when the directory cannot be used.
function(confsave_import_platform directory flaw)
  set(${flaw} "" PARENT_SCOPE)
  if(NOT IS_ABSOLUTE "${directory}" OR directory MATCHES " ")
    set(${flaw} "'${directory}' must be an absolute path without a blank." PARENT_SCOPE)
    return()
  endif()
  if(NOT EXISTS "${directory}/include/kelmor/status.h")
    set(${flaw} "${directory} is no platform: it has no include/kelmor/status.h." PARENT_SCOPE)
    return()
  endif()

  find_library(
    library kelmor-platform
    PATHS "${directory}"
    PATH_SUFFIXES lib "lib/${CMAKE_LIBRARY_ARCHITECTURE}" lib64
    NO_DEFAULT_PATH NO_CACHE)
  if(library)
    add_library(kelmor::platform SHARED IMPORTED GLOBAL)
    set_target_properties(kelmor::platform PROPERTIES IMPORTED_LOCATION "${library}")
  else()
    add_library(kelmor::platform INTERFACE IMPORTED GLOBAL)
  endif()
  target_include_directories(kelmor::platform INTERFACE "${directory}/include")
endfunction()
