# Gives the name kelmor::platform to what a gateway's maker supplies in a directory: the contract in
# include/kelmor/ and libkelmor-platform.so in lib/. Without the library the host process itself is to
# bring everything that the contract declares. What is wrong with the directory is put into `flaw`.
function(confsave_import_platform directory flaw)
  set(${flaw} "" PARENT_SCOPE)
  if(NOT IS_ABSOLUTE "${directory}" OR directory MATCHES " ")
    set(${flaw} "'${directory}' is to be an absolute path without a blank." PARENT_SCOPE)
    return()
  endif()
  if(NOT EXISTS "${directory}/include/kelmor/status.h")
    set(${flaw} "${directory} holds no platform: there is no include/kelmor/status.h in it." PARENT_SCOPE)
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
