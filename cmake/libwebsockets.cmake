# Finds libwebsockets as the target kest_libwebsockets: where CMAKE_PREFIX_PATH points, else where
# scripts/setup builds it, else in the system. Without external polling, as distributions build it,
# it would compile and link and then never report a descriptor, so that is looked at here.

find_package(OpenSSL REQUIRED)

if(DEFINED ENV{KEST_DEPS_DIR})
    # Relative to the source tree, as for scripts/setup.
    get_filename_component(KEST_DEPS_DIR "$ENV{KEST_DEPS_DIR}" ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
else()
    set(KEST_DEPS_DIR ${PROJECT_SOURCE_DIR}/build/deps)
endif()
list(APPEND CMAKE_PREFIX_PATH ${KEST_DEPS_DIR})
find_path(LIBWEBSOCKETS_INCLUDE_DIR lws_config.h)
find_library(LIBWEBSOCKETS_LIBRARY websockets HINTS ${LIBWEBSOCKETS_INCLUDE_DIR}/../lib)

set(external_poll)
if(LIBWEBSOCKETS_INCLUDE_DIR AND LIBWEBSOCKETS_LIBRARY)
    file(STRINGS ${LIBWEBSOCKETS_INCLUDE_DIR}/lws_config.h external_poll
        REGEX "^#define LWS_WITH_EXTERNAL_POLL")
endif()
if(NOT external_poll)
    set(found ${LIBWEBSOCKETS_INCLUDE_DIR})
    set(library ${LIBWEBSOCKETS_LIBRARY})
    # Searched for anew next time.
    unset(LIBWEBSOCKETS_INCLUDE_DIR CACHE)
    unset(LIBWEBSOCKETS_LIBRARY CACHE)
    if(found AND NOT library)
        set(finding "The libwebsockets of ${found} has a header and no library.")
    elseif(found)
        set(finding "The libwebsockets of ${found} is built without external polling.")
    else()
        set(finding "libwebsockets is not there.")
    endif()
    message(FATAL_ERROR "${finding}\nRun scripts/setup, which builds one that will do into "
        "${KEST_DEPS_DIR} (KEST_DEPS_DIR in the environment names another place), or name the "
        "prefix of one built with -DLWS_WITH_EXTERNAL_POLL=ON in CMAKE_PREFIX_PATH.")
endif()

add_library(kest_libwebsockets UNKNOWN IMPORTED)
set_target_properties(kest_libwebsockets PROPERTIES
    IMPORTED_LOCATION ${LIBWEBSOCKETS_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${LIBWEBSOCKETS_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES "OpenSSL::SSL;OpenSSL::Crypto;m;${CMAKE_DL_LIBS}")
