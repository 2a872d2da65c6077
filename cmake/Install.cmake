# `cmake --install` puts the libraries, their headers, an exported CMake
# package and a pkg-config file in place:
#   find_package(NVQHttp REQUIRED)
#   target_link_libraries(app PRIVATE NVQHttp::nvq_http)
# or: pkg-config --cflags --libs nvqhttp
include(CMakePackageConfigHelpers)

set(NVQ_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/NVQHttp)

install(TARGETS kzf_templates kzf_base nvq_sockets nvq_http
  EXPORT NVQHttpTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(EXPORT NVQHttpTargets NAMESPACE NVQHttp:: DESTINATION ${NVQ_PACKAGE_DIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/Build/Inc/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nvq
  FILES_MATCHING PATTERN "*.h")
# A class's *Internal.h is shared by its own sources only.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/Source/Cpp/HTTP
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/nvq
  FILES_MATCHING PATTERN "*.h"
  PATTERN "*Internal.h" EXCLUDE)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/NVQHttpConfig.cmake.in
  ${PROJECT_BINARY_DIR}/NVQHttpConfig.cmake
  INSTALL_DESTINATION ${NVQ_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/NVQHttpConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/NVQHttpConfig.cmake ${PROJECT_BINARY_DIR}/NVQHttpConfigVersion.cmake
  DESTINATION ${NVQ_PACKAGE_DIR})

# With HTTPS the libraries need OpenSSL's. Public, so that a static
# installation links without --static (a shared one drops it as needed).
if(NVQ_WITH_TLS)
  set(NVQ_PC_REQUIRES "libssl >= 3.0 libcrypto >= 3.0")
else()
  set(NVQ_PC_REQUIRES "")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/nvqhttp.pc.in ${PROJECT_BINARY_DIR}/nvqhttp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/nvqhttp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
