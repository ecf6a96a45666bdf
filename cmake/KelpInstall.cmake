# What `cmake --install` gives: the headers, the shared libraries, the programs, and what
# find_package and pkg-config need to find them. The prefix may be moved afterwards: nothing that
# is installed holds an absolute path.
include(CMakePackageConfigHelpers)

set(headers_dir "${CMAKE_INSTALL_INCLUDEDIR}/kelp")
set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/KelpEmServer")
set(pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# The same two include roots as in the build: the repo root and platform/.
foreach(folder Lumen Brio OrderedTable KelpEmServer platform)
  if(IS_DIRECTORY "${PROJECT_SOURCE_DIR}/${folder}")
    install(DIRECTORY "${PROJECT_SOURCE_DIR}/${folder}" DESTINATION "${headers_dir}"
      COMPONENT Development FILES_MATCHING PATTERN "*.h")
  endif()
endforeach()
install(DIRECTORY "${PROJECT_BINARY_DIR}/generated/" DESTINATION "${headers_dir}"
  COMPONENT Development FILES_MATCHING PATTERN "*.h")

file(RELATIVE_PATH lib_from_bin "/${CMAKE_INSTALL_BINDIR}" "/${CMAKE_INSTALL_LIBDIR}")
set(kelp_libraries)
foreach(library KelpPlatform KelpEmServer)
  if(TARGET ${library})
    list(APPEND kelp_libraries ${library})
    set_target_properties(${library} PROPERTIES INSTALL_RPATH "$ORIGIN")
  endif()
endforeach()
install(TARGETS ${kelp_libraries} EXPORT KelpEmServerTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT Runtime NAMELINK_COMPONENT Development
  INCLUDES DESTINATION "${headers_dir}" "${headers_dir}/platform")
if(TARGET KelpPlatform)
  install(FILES "${PROJECT_SOURCE_DIR}/tools/gdb/KelpPlatform-gdb.py"
    RENAME "libKelpPlatform.so.${PROJECT_VERSION}-gdb.py" DESTINATION "${CMAKE_INSTALL_LIBDIR}"
    COMPONENT Development)
endif()
install(EXPORT KelpEmServerTargets NAMESPACE KelpEmServer:: DESTINATION "${package_dir}"
  COMPONENT Development)

# Adds to `out` the executables that `folder` and the folders below it define.
function(kelp_programs_of folder out)
  get_property(targets DIRECTORY "${folder}" PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subfolders DIRECTORY "${folder}" PROPERTY SUBDIRECTORIES)
  set(programs ${${out}})
  foreach(target ${targets})
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "EXECUTABLE")
      list(APPEND programs ${target})
    endif()
  endforeach()
  foreach(subfolder ${subfolders})
    kelp_programs_of("${subfolder}" programs)
  endforeach()
  set(${out} ${programs} PARENT_SCOPE)
endfunction()

set(kelp_programs)
foreach(folder agent chip demo soak kelp)
  if(KELP_BUILD_PROGRAMS AND EXISTS "${PROJECT_SOURCE_DIR}/${folder}/CMakeLists.txt")
    kelp_programs_of("${PROJECT_SOURCE_DIR}/${folder}" kelp_programs)
  endif()
endforeach()
if(kelp_programs)
  set_target_properties(${kelp_programs} PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_bin}")
  install(TARGETS ${kelp_programs}
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT Programs)
endif()

install(DIRECTORY "${PROJECT_SOURCE_DIR}/python/kelp_inspect"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/kelp/python" COMPONENT Programs
  FILES_MATCHING PATTERN "*.py" PATTERN "py.typed" PATTERN "__pycache__" EXCLUDE)
if(TARGET kelp)
  install(FILES "${PROJECT_SOURCE_DIR}/completions/kelp.bash" RENAME kelp
    DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT Programs)
endif()

# The headers name fmt's types, so a consumer must use the fmt that the libraries were built with.
string(REGEX MATCH "^[0-9]+" KELP_FMT_MAJOR "${fmt_VERSION}")
configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/package/KelpEmServerConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/package/KelpEmServerConfig.cmake" INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/package/KelpEmServerConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/package/KelpEmServerConfig.cmake"
  "${PROJECT_BINARY_DIR}/package/KelpEmServerConfigVersion.cmake"
  DESTINATION "${package_dir}" COMPONENT Development)

file(RELATIVE_PATH KELP_PREFIX_FROM_PC "/${pkgconfig_dir}" "/")
string(REGEX REPLACE "/$" "" KELP_PREFIX_FROM_PC "${KELP_PREFIX_FROM_PC}")
list(REVERSE kelp_libraries)
list(TRANSFORM kelp_libraries PREPEND "-l" OUTPUT_VARIABLE KELP_PC_LIBRARIES)
list(JOIN KELP_PC_LIBRARIES " " KELP_PC_LIBRARIES)
configure_file("${CMAKE_CURRENT_LIST_DIR}/package/KelpEmServer.pc.in"
  "${PROJECT_BINARY_DIR}/package/KelpEmServer.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/package/KelpEmServer.pc" DESTINATION "${pkgconfig_dir}"
  COMPONENT Development)
