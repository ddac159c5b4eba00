# Gives the name kelmor::platform to what a gateway's maker supplies in a directory: the contract in
# include/kelmor/ and libkelmor-platform.so in lib/. Without the library the host process itself is to
# bring everything that the contract declares.
function(confsave_import_platform directory)
  if(NOT EXISTS "${directory}/include/kelmor/status.h")
    message(FATAL_ERROR "${directory} holds no platform: there is no include/kelmor/status.h in it.")
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
