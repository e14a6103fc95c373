# One folder, one library. A room sees only its headers and those of the rooms that it links: a room's headers are in a
# folder of links that only its users have on their include path.

# kvsnmp_open_door(TARGET SCOPE PATH...): lets users of TARGET include PATH (a file or folder, from the source root).
function(kvsnmp_open_door target scope)
    set(door ${CMAKE_BINARY_DIR}/doors/${target})
    foreach(path IN LISTS ARGN)
        cmake_path(GET path PARENT_PATH parent)
        file(MAKE_DIRECTORY ${door}/${parent})
        file(CREATE_LINK ${CMAKE_SOURCE_DIR}/${path} ${door}/${path} SYMBOLIC)
    endforeach()
    target_include_directories(${target} ${scope} ${door})
endfunction()

# kvsnmp_room(NAME [FOLDER dir] SOURCES... SEES targets... USES targets...)
#   SEES: rooms that its headers include, passed on to its users; USES: rooms that only its sources include.
function(kvsnmp_room name)
    cmake_parse_arguments(ROOM "" "FOLDER" "SOURCES;SEES;USES" ${ARGN})
    if(NOT ROOM_FOLDER)
        set(ROOM_FOLDER ${name})
    endif()
    set(target kvsnmp-${name})
    if(ROOM_SOURCES)
        add_library(${target} STATIC ${ROOM_SOURCES})
        target_link_libraries(${target} PUBLIC ${ROOM_SEES} PRIVATE kvsnmp-settings ${ROOM_USES})
        kvsnmp_open_door(${target} PUBLIC ${ROOM_FOLDER})
    else()
        add_library(${target} INTERFACE)
        target_link_libraries(${target} INTERFACE ${ROOM_SEES})
        kvsnmp_open_door(${target} INTERFACE ${ROOM_FOLDER})
    endif()
endfunction()
