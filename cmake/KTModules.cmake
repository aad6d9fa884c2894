# Every folder under Sources/ is a module: its .cpp files (recursively) make one static
# library kt_<Module>. Headers are included as "KTAnalytics/<Module>/<Header>.h", the way an
# application includes the installed ones, so the build tree reaches Sources/ through a
# link named KTAnalytics.
set(KT_MODULES "" CACHE INTERNAL "")
set(KT_BUILD_INCLUDE_DIR ${PROJECT_BINARY_DIR}/include)
file(MAKE_DIRECTORY ${KT_BUILD_INCLUDE_DIR})
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/Sources ${KT_BUILD_INCLUDE_DIR}/KTAnalytics SYMBOLIC)

function(kt_precompile target)
  # nlohmann/json is the attribute value type and costs seconds per translation unit.
  target_precompile_headers(${target} PRIVATE
    <nlohmann/json.hpp> <string> <vector> <memory> <functional> <optional> <map>)
endfunction()

function(kt_module name)
  cmake_parse_arguments(KT "" "" "DEPENDS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/Sources/${name}/*.cpp")
  if(NOT sources)
    # A module with nothing compiled yet still takes part in linking.
    set(sources "${PROJECT_SOURCE_DIR}/cmake/empty.cpp")
  endif()
  add_library(kt_${name} STATIC ${sources})
  target_include_directories(kt_${name} PUBLIC $<BUILD_INTERFACE:${KT_BUILD_INCLUDE_DIR}>)
  target_link_libraries(kt_${name} PUBLIC ${KT_DEPENDS} Threads::Threads)
  target_compile_options(kt_${name} PRIVATE -Wall -Wextra -Wno-unused-parameter)
  kt_precompile(kt_${name})
  set(KT_MODULES ${KT_MODULES} ${name} CACHE INTERNAL "")
endfunction()

function(kt_library)
  set(archives "")
  set(objects "")
  foreach(m IN LISTS KT_MODULES)
    list(APPEND archives $<TARGET_FILE:kt_${m}>)
    list(APPEND objects $<TARGET_OBJECTS:kt_${m}>)
  endforeach()
  add_library(ktanalytics SHARED ${PROJECT_SOURCE_DIR}/cmake/empty.cpp)
  # Every module goes into the shared library whole; the modules' own link interfaces
  # (listed after) then bring in only the external libraries.
  target_link_libraries(ktanalytics PRIVATE -Wl,--whole-archive ${archives} -Wl,--no-whole-archive kt_Setup)
  # The static library holds the same objects; whoever links it links the external
  # libraries too (the package's "static" component finds them).
  add_library(ktanalytics_static STATIC ${objects})
  add_dependencies(ktanalytics_static kt_Setup)
  set(KT_EXTERNAL_LIBRARIES ZLIB::ZLIB OpenSSL::Crypto CURL::libcurl SQLite::SQLite3 fmt::fmt spdlog::spdlog
      Boost::url PkgConfig::UUID Threads::Threads)
  foreach(library IN LISTS KT_EXTERNAL_LIBRARIES)
    target_link_libraries(ktanalytics_static INTERFACE $<LINK_ONLY:${library}>)
  endforeach()
  foreach(target ktanalytics ktanalytics_static)
    target_include_directories(${target} PUBLIC
      $<BUILD_INTERFACE:${KT_BUILD_INCLUDE_DIR}>
      $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/generated>
      $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    # Public headers use nlohmann/json as the attribute value type.
    target_link_libraries(${target} PUBLIC nlohmann_json::nlohmann_json)
    target_compile_features(${target} PUBLIC cxx_std_20)
  endforeach()
  set_target_properties(ktanalytics PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME ktanalytics)
  set_target_properties(ktanalytics_static PROPERTIES OUTPUT_NAME ktanalytics EXPORT_NAME ktanalytics_static)
  add_library(KTAnalytics::ktanalytics ALIAS ktanalytics)
  add_library(KTAnalytics::ktanalytics_static ALIAS ktanalytics_static)

  install(TARGETS ktanalytics EXPORT KTAnalyticsTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(TARGETS ktanalytics_static EXPORT KTAnalyticsStaticTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(EXPORT KTAnalyticsTargets NAMESPACE KTAnalytics::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KTAnalytics)
  install(EXPORT KTAnalyticsStaticTargets NAMESPACE KTAnalytics::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KTAnalytics)
  include(CMakePackageConfigHelpers)
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KTAnalyticsConfig.cmake.in
    ${PROJECT_BINARY_DIR}/KTAnalyticsConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KTAnalytics)
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/KTAnalyticsConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/KTAnalyticsConfig.cmake ${PROJECT_BINARY_DIR}/KTAnalyticsConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/KTAnalytics)
  # The prefix is the one given at install time: the file finds it from where it lies.
  file(RELATIVE_PATH KT_PC_PREFIX_FROM_PCFILEDIR
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" KT_PC_PREFIX_FROM_PCFILEDIR "${KT_PC_PREFIX_FROM_PCFILEDIR}")
  configure_file(${PROJECT_SOURCE_DIR}/cmake/ktanalytics.pc.in ${PROJECT_BINARY_DIR}/ktanalytics.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/ktanalytics.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  # The public headers are KTAnalytics.h and what it includes, found by the compiler at
  # install time, so an internal header can never slip into the package unnoticed.
  configure_file(${PROJECT_SOURCE_DIR}/cmake/KTInstallHeaders.cmake.in ${PROJECT_BINARY_DIR}/KTInstallHeaders.cmake @ONLY)
  install(SCRIPT ${PROJECT_BINARY_DIR}/KTInstallHeaders.cmake)
endfunction()
