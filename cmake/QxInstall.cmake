# What `cmake --install` and CPack put beside the libraries and headers: a CMake package, a pkg-config file and the
# description of the Debian package. All paths are relative to where the files lie, so that the prefix can be moved.

include(CMakePackageConfigHelpers)
set(configFolder "${CMAKE_INSTALL_LIBDIR}/cmake/QxCuda")
install(EXPORT QxCudaTargets NAMESPACE Qx:: DESTINATION "${configFolder}")
configure_package_config_file(cmake/QxCudaConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/QxCudaConfig.cmake"
                              INSTALL_DESTINATION "${configFolder}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/QxCudaConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/QxCudaConfig.cmake" "${CMAKE_CURRENT_BINARY_DIR}/QxCudaConfigVersion.cmake"
              cmake/QxKernels.cmake
        DESTINATION "${configFolder}")

set(pcFolder "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH pcPrefix "/${pcFolder}" "/")
string(REGEX REPLACE "/$" "" pcPrefix "${pcPrefix}")
if(QX_CHOSEN_PLATFORM STREQUAL "CUDA")
    # The toolkit has no pkg-config file of a fixed name; its folder can be set with --define-variable=cudadir=...
    get_filename_component(cudaFolder "${CUDAToolkit_BIN_DIR}" DIRECTORY)
    set(pcVariables "cudadir=${cudaFolder}\n")
    set(pcPlatformLibs "-L\${cudadir}/lib64 -lcudart -lcublas")
    set(pcPlatformCflags "-I\${cudadir}/include")
else()
    set(pcPlatformLibs "-lQx.HostCuda")
    set(pcPlatformCflags "-I\${includedir}/Qx.HostCuda/include")
endif()
configure_file(cmake/qx-cuda.pc.in "${CMAKE_CURRENT_BINARY_DIR}/qx-cuda.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/qx-cuda.pc" DESTINATION "${pcFolder}")

install(FILES cmake/copyright DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/qx-cuda")

set(CPACK_PACKAGE_NAME "qx-cuda")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VENDOR "Qx.Cuda developers")
set(CPACK_PACKAGE_CONTACT "Qx.Cuda developers")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR "DEB")
set(CPACK_DEBIAN_FILE_NAME "DEB-DEFAULT")
set(CPACK_DEBIAN_PACKAGE_SECTION "libdevel")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_BINARY_DIR}/Source" "${CMAKE_BINARY_DIR}/Source/Qx.HostCuda")
if(PROJECT_IS_TOP_LEVEL)
    include(CPack)
endif()
