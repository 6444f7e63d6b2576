# Finds the Android log library (__android_log_print).
# On Android the NDK sysroot has <android/log.h> and liblog; on a Debian host
# android-liblog-dev puts the header under /usr/include/android and the library
# under /usr/lib/<triplet>/android. Defines AndroidLog::log.
find_path(AndroidLog_INCLUDE_DIR android/log.h PATH_SUFFIXES android)
find_library(AndroidLog_LIBRARY NAMES log PATH_SUFFIXES android)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(AndroidLog REQUIRED_VARS AndroidLog_LIBRARY AndroidLog_INCLUDE_DIR)

# A shared library: CMake then tells the linker of a program that links a
# library using it where to find it (-rpath-link), and an exported library that
# links it privately lists it among its link-dependent libraries.
if(AndroidLog_FOUND AND NOT TARGET AndroidLog::log)
  if(AndroidLog_LIBRARY MATCHES "\\.a$")
    add_library(AndroidLog::log STATIC IMPORTED)
  else()
    add_library(AndroidLog::log SHARED IMPORTED)
  endif()
  set_target_properties(AndroidLog::log PROPERTIES
    IMPORTED_LOCATION "${AndroidLog_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${AndroidLog_INCLUDE_DIR}")
endif()
mark_as_advanced(AndroidLog_INCLUDE_DIR AndroidLog_LIBRARY)
