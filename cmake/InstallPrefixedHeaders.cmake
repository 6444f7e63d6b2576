# Run at install time (install(CODE)): installs the headers of the subsystem
# folders under <includedir>/SegmentationCore/<folder>/ and the umbrella header
# under <includedir>/SegmentationCore/, with every quoted include of a
# subsystem header ("engine/X.h") written as "SegmentationCore/engine/X.h".
# A caller then has only <includedir> on its include path, so no folder of the
# library (engine/, support/ ...) can shadow one of the caller's own.
#
# Inputs: SEGCORE_SOURCE_DIR, SEGCORE_STAGING_DIR (a folder in the build tree),
# SEGCORE_SUBSYSTEMS, SEGCORE_INCLUDE_DESTINATION (relative to the prefix),
# SEGCORE_PRIVATE_HEADERS (<folder>/<name>.h paths that stay uninstalled).
# Headers are globbed here, at install time, so new headers need no reconfigure.
string(JOIN "|" _segcore_folders ${SEGCORE_SUBSYSTEMS})
set(_segcore_include_re "(#[ \t]*include[ \t]*\")(${_segcore_folders})/")

# Writes the rewritten copy of header into staging folder dir; unchanged copies
# keep their time stamp, so a repeated install reports them up to date.
function(_segcore_stage header dir out_var)
  file(READ "${header}" text)
  string(REGEX REPLACE "${_segcore_include_re}" "\\1SegmentationCore/\\2/" text "${text}")
  get_filename_component(name "${header}" NAME)
  set(staged "${dir}/${name}")
  set(old "")
  if(EXISTS "${staged}")
    file(READ "${staged}" old)
  endif()
  if(NOT old STREQUAL text)
    file(WRITE "${staged}" "${text}")
  endif()
  set(${out_var} "${staged}" PARENT_SCOPE)
endfunction()

set(_segcore_dest "${CMAKE_INSTALL_PREFIX}/${SEGCORE_INCLUDE_DESTINATION}/SegmentationCore")
foreach(_segcore_folder IN LISTS SEGCORE_SUBSYSTEMS)
  file(GLOB _segcore_headers "${SEGCORE_SOURCE_DIR}/${_segcore_folder}/*.h")
  set(_segcore_staged "")
  foreach(_segcore_header IN LISTS _segcore_headers)
    file(RELATIVE_PATH _segcore_relative "${SEGCORE_SOURCE_DIR}" "${_segcore_header}")
    list(FIND SEGCORE_PRIVATE_HEADERS "${_segcore_relative}" _segcore_private)
    if(_segcore_private GREATER -1)  # (no IN_LIST: install scripts run without policies)
      continue()
    endif()
    _segcore_stage("${_segcore_header}" "${SEGCORE_STAGING_DIR}/${_segcore_folder}" _segcore_copy)
    list(APPEND _segcore_staged "${_segcore_copy}")
  endforeach()
  if(_segcore_staged)
    file(INSTALL DESTINATION "${_segcore_dest}/${_segcore_folder}" TYPE FILE FILES ${_segcore_staged})
  endif()
endforeach()
_segcore_stage("${SEGCORE_SOURCE_DIR}/include/SegmentationCore/SegmentationCore.h"
               "${SEGCORE_STAGING_DIR}" _segcore_umbrella)
file(INSTALL DESTINATION "${_segcore_dest}" TYPE FILE FILES "${_segcore_umbrella}")
