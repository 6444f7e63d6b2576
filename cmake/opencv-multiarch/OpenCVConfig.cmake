# Finds Debian's multiarch OpenCV libraries of the target architecture
# (/usr/lib/<triplet>/libopencv_<module>.so) when the package configuration of
# that architecture is not installed. Defines opencv_<module> targets and
# OpenCV_LIBS for the requested components; a component whose library is
# missing is reported as not found.
set(_ocv_arch_dir /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
find_path(OpenCV_INCLUDE_DIR opencv2/core.hpp PATHS /usr/include/opencv4 NO_DEFAULT_PATH)
find_path(OpenCV_ARCH_INCLUDE_DIR opencv2/cvconfig.h
          PATHS /usr/include/${CMAKE_LIBRARY_ARCHITECTURE}/opencv4 NO_DEFAULT_PATH)
set(OpenCV_VERSION 4.6.0)
set(OpenCV_LIBS "")
set(OpenCV_FOUND TRUE)
foreach(_ocv_module IN LISTS OpenCV_FIND_COMPONENTS)
  find_library(OpenCV_${_ocv_module}_LIBRARY opencv_${_ocv_module} PATHS ${_ocv_arch_dir} NO_DEFAULT_PATH)
  if(NOT OpenCV_${_ocv_module}_LIBRARY)
    set(OpenCV_${_ocv_module}_FOUND FALSE)
    if(OpenCV_FIND_REQUIRED_${_ocv_module})
      set(OpenCV_FOUND FALSE)
    endif()
    continue()
  endif()
  set(OpenCV_${_ocv_module}_FOUND TRUE)
  if(NOT TARGET opencv_${_ocv_module})
    add_library(opencv_${_ocv_module} SHARED IMPORTED)
    set_target_properties(opencv_${_ocv_module} PROPERTIES
      IMPORTED_LOCATION "${OpenCV_${_ocv_module}_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${OpenCV_INCLUDE_DIR};${OpenCV_ARCH_INCLUDE_DIR}")
  endif()
  list(APPEND OpenCV_LIBS opencv_${_ocv_module})
endforeach()
