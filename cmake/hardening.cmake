# What compiler and linker can do against a fault being exploited: the module lives in somebody
# else's process, and each of the programs reads what strangers send. tools/hardened.sh checks it on
# the binaries. The sanitizers bring their own checks and do not get along with these.
include(CheckPIESupported)
check_pie_supported()

if(NOT XJ_SANITIZE)
    add_compile_options(-fstack-protector-strong -fstack-clash-protection)
    # Checks what memory and format functions are asked for; needs optimisation.
    add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>"
                        "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=3>")
    add_link_options(LINKER:-z,relro,-z,now,-z,noexecstack)
    if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
        # Signed return addresses, and landing pads for indirect branches. A processor enforces the
        # pads only if every part of a binary has them, the C library's start files included, which
        # Debian 12's do not.
        add_compile_options(-mbranch-protection=standard)
    endif()
endif()
