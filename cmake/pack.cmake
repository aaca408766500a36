# Debian packages of what installs: `cpack` in the build folder makes them.
find_program(GZIP gzip REQUIRED)
# packed(SOURCE FOLDER NAME COMPONENT): installs it compressed.
function(packed source folder name component)
    set(file ${PROJECT_BINARY_DIR}/packed/${component}/${name})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    configure_file(${source} ${file}.plain @ONLY)
    execute_process(COMMAND ${GZIP} -9nc ${file}.plain OUTPUT_FILE ${file}
        COMMAND_ERROR_IS_FATAL ANY)
    install(FILES ${file} DESTINATION ${CMAKE_INSTALL_DATADIR}/${folder} COMPONENT ${component})
endfunction()

# package(COMPONENT NAME SECTION SUMMARY DESCRIPTION)
macro(package component name section summary description)
    string(TOUPPER ${component} key)
    set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name})
    set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section})
    set(CPACK_DEBIAN_${key}_DESCRIPTION "${summary}\n${description}")
    packed(packaging/changelog.in doc/${name} changelog.gz ${component})
    packed(CHANGELOG.md doc/${name} CHANGELOG.md.gz ${component})
    install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name}
        COMPONENT ${component})
    list(APPEND CPACK_COMPONENTS_ALL ${component})
endmacro()

package(module libxj-client-usbip0 libs "USB redirection for remote-access clients, the module"
    "A host process loads this library at run time and lends it a byte stream to a\nremote computer, whose USB devices then appear on this machine.")
install(FILES packaging/libxj-client-usbip0.overrides
    DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME libxj-client-usbip0
    COMPONENT module)

package(development libxj-client-usbip-dev libdevel
    "USB redirection for remote-access clients, development files"
    "Headers, CMake package, pkg-config file and examples for hosts that load\nlibxj-client-usbip.so, and a static library of parts for them.")
install(DIRECTORY examples/minimal-host examples/tap
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libxj-client-usbip-dev/examples COMPONENT development)

package(programs xj-usbip-tools net "USB redirection for remote-access clients, the programs"
    "xj-usbip-host attaches the USB devices of a remote computer to this machine;\nxj-usbip-remote offers virtual disks and the devices of any USB/IP server.")
foreach(program xj-usbip-host xj-usbip-remote)
    packed(docs/man/${program}.1 man/man1 ${program}.1.gz programs)
    install(FILES packaging/completion.bash RENAME ${program} COMPONENT programs
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endforeach()
install(FILES packaging/xj-usbip-host@.service DESTINATION lib/systemd/system COMPONENT programs)
install(FILES packaging/modules-load.conf RENAME xj-usbip.conf DESTINATION lib/modules-load.d
    COMPONENT programs)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGE_CONTACT "The authors of xj-client-usbip <maintainers@example.com>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
foreach(key DEVELOPMENT PROGRAMS)
    set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "libxj-client-usbip0 (= ${PROJECT_VERSION})")
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/pack-environment.cmake
"set(ENV{DEB_HOST_ARCH} ${CPACK_DEBIAN_PACKAGE_ARCHITECTURE})  # for dpkg-shlibdeps
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    set(ENV{SOURCE_DATE_EPOCH} 1795435200)  # of packaging/changelog.in
endif()
")
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/pack-environment.cmake)
include(CPack)
