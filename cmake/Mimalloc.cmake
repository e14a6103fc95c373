# The path of libmimalloc in KVSNMP_MIMALLOC_LIBRARY, if the daemon allocates with it: KVSNMP_MIMALLOC is ON, or AUTO
# with the library installed. Two fifths of a request's instructions allocate, because glibc's calloc() does not use its
# cache of free blocks. Sanitizers replace the allocator too.

if(KVSNMP_MIMALLOC STREQUAL "AUTO" AND NOT KVSNMP_SANITIZE)
    find_library(KVSNMP_MIMALLOC_LIBRARY mimalloc)
elseif(KVSNMP_MIMALLOC AND NOT KVSNMP_MIMALLOC STREQUAL "AUTO")
    find_library(KVSNMP_MIMALLOC_LIBRARY mimalloc REQUIRED)
endif()
