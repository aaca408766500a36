# What installs, and how other projects find it: the CMake package and the .pc file name everything
# relative to themselves, so that the installed tree can be moved.
include(CMakePackageConfigHelpers)

# Hosts load the module at run time: they compile against the headers, and ask the other target, or
# the .pc file, where its file is.
add_library(xj-client-usbip-headers INTERFACE)
target_include_directories(xj-client-usbip-headers INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(xj-client-usbip-headers INTERFACE cxx_std_17)
set_target_properties(xj-client-usbip-headers PROPERTIES EXPORT_NAME headers)
set_target_properties(xj-client-usbip PROPERTIES EXPORT_NAME module)
add_library(xj-client-usbip::headers ALIAS xj-client-usbip-headers)
add_library(xj-client-usbip::module ALIAS xj-client-usbip)

install(TARGETS xj-client-usbip EXPORT xj-client-usbip
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT module)
install(TARGETS xj-client-usbip-headers EXPORT xj-client-usbip)
if(XJ_KIT)
    set_target_properties(xj-client-usbip-kit PROPERTIES EXPORT_NAME kit)
    add_library(xj-client-usbip::kit ALIAS xj-client-usbip-kit)
    install(TARGETS xj-client-usbip-kit EXPORT xj-client-usbip
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
endif()
install(DIRECTORY include/xj-client-usbip DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/xj-client-usbip)
install(EXPORT xj-client-usbip FILE xj-client-usbip-targets.cmake NAMESPACE xj-client-usbip::
    DESTINATION ${package} COMPONENT development)
configure_file(cmake/xj-client-usbip-config.cmake.in xj-client-usbip-config.cmake @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/xj-client-usbip-config.cmake DESTINATION ${package}
    COMPONENT development)
write_basic_package_version_file(xj-client-usbip-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/xj-client-usbip-config-version.cmake
    DESTINATION ${package} COMPONENT development)

# Among the data: it says the same for every architecture.
file(RELATIVE_PATH XJ_TO_PREFIX ${CMAKE_INSTALL_FULL_DATADIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/xj-client-usbip.pc.in xj-client-usbip.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/xj-client-usbip.pc
    DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgconfig COMPONENT development)
