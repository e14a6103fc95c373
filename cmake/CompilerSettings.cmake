# Warnings, sanitizers, clang-tidy and ccache for the whole tree.

add_library(kvsnmp-settings INTERFACE)
target_compile_options(kvsnmp-settings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(KVSNMP_WERROR)
    target_compile_options(kvsnmp-settings INTERFACE -Werror)
endif()
target_compile_definitions(kvsnmp-settings INTERFACE
    QT_NO_KEYWORDS QT_NO_CAST_FROM_ASCII QT_DEPRECATED_WARNINGS KVSNMP_VERSION="${PROJECT_VERSION}")

if(KVSNMP_SANITIZE)
    add_compile_options(-fsanitize=${KVSNMP_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KVSNMP_SANITIZE})
endif()

if(KVSNMP_COVERAGE)
    add_compile_options(--coverage -fprofile-update=atomic)
    add_link_options(--coverage)
endif()

find_program(KVSNMP_CCACHE ccache)
if(KVSNMP_CCACHE AND NOT KVSNMP_TIDY)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${KVSNMP_CCACHE})
    set(CMAKE_C_COMPILER_LAUNCHER ${KVSNMP_CCACHE})
endif()

if(KVSNMP_TIDY)
    find_program(KVSNMP_CLANG_TIDY NAMES clang-tidy-14 clang-tidy REQUIRED)
    set(CMAKE_CXX_CLANG_TIDY ${KVSNMP_CLANG_TIDY} --quiet)
    # Disables the checks for generated sources: files in the build folder find this nearer configuration.
    file(WRITE ${CMAKE_BINARY_DIR}/.clang-tidy "Checks: '-*,misc-definitions-in-headers'\n")
endif()
