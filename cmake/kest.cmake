# What every target of the project has in common.

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm" AND CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(KEST_ARM32 ON)
endif()

# Warnings, language and frame pointers for any target that we compile.
function(kest_target target)
    target_compile_features(${target} PUBLIC cxx_std_17)
    set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
    # The stack walk of the crash handler follows frame records.
    target_compile_options(${target} PRIVATE
        -Wall -Wextra -Wshadow -Wconversion -Wold-style-cast
        -fno-omit-frame-pointer
        $<$<BOOL:${KEST_WERROR}>:-Werror>
        # GCC's notes on a change of its ABI before the oldest version that we support.
        $<$<BOOL:${KEST_ARM32}>:-marm;-Wno-psabi>)
endfunction()

# A library of ours: hidden symbols, versioned SONAME, no late binding.
function(kest_library target)
    kest_target(${target})
    set_target_properties(${target} PROPERTIES
        CXX_VISIBILITY_PRESET hidden
        VISIBILITY_INLINES_HIDDEN ON
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR})
    # 64-bit file sizes on 32-bit targets. Public: struct stat appears in our interfaces.
    target_compile_definitions(${target} PUBLIC _FILE_OFFSET_BITS=64)
    set(map ${PROJECT_SOURCE_DIR}/cmake/std_local.map)
    # What nobody calls is left out.
    target_compile_options(${target} PRIVATE -ffunction-sections -fdata-sections)
    target_link_options(${target} PRIVATE -Wl,--gc-sections)
    target_link_options(${target} PRIVATE -Wl,-z,now -Wl,-z,relro -Wl,--version-script=${map})
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${map})
endfunction()

# Compiles every header in a source file of its own, so that each stands alone.
function(kest_check_headers target)
    set(sources)
    foreach(header ${ARGN})
        string(MAKE_C_IDENTIFIER ${header} id)
        set(source ${CMAKE_CURRENT_BINARY_DIR}/header_check/${id}.cpp)
        file(CONFIGURE OUTPUT ${source} CONTENT "#include \"${CMAKE_CURRENT_SOURCE_DIR}/${header}\"\n")
        list(APPEND sources ${source})
    endforeach()
    add_library(${target}_header_check OBJECT ${sources})
    kest_target(${target}_header_check)
    target_link_libraries(${target}_header_check PRIVATE ${target})
endfunction()
