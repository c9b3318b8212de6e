# What every target of the project has in common.

set(QX_SOURCE_ROOT "${CMAKE_CURRENT_SOURCE_DIR}/Source")

# qx_configure_target(<target>): language level, warnings and sanitizers of one of our own targets.
function(qx_configure_target target)
    target_compile_features(${target} PUBLIC cxx_std_20)
    target_compile_options(${target} PRIVATE
        $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wshadow -Wconversion -Wsign-conversion>
        $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-Wall,-Wextra>)
    if(QX_WARNINGS_AS_ERRORS)
        target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Werror>
                               $<$<COMPILE_LANGUAGE:CUDA>:-Werror=all-warnings>)
    endif()
    if(QX_SANITIZE)
        target_compile_options(${target} PRIVATE -fsanitize=${QX_SANITIZE} -fno-omit-frame-pointer
                               -fno-sanitize-recover=all)
        target_link_options(${target} PRIVATE -fsanitize=${QX_SANITIZE})
    endif()
endfunction()

# qx_add_library(<target> OUTPUT <file name without lib and .so> SOURCES <files> [LINK <public libraries>]
#                [PRIVATE_LINK <libraries>] [HEADERS <installed headers, relative to the include root>])
# A shared library of the SDK. <target> QxFoo is also known as Qx::Foo, which is its name for clients.
#
# It stays loaded when the last library that uses it is unloaded: the pool's blocks, the debug channel and the stand-in's
# streams belong to the process, not to who was first to ask for them.
function(qx_add_library target)
    cmake_parse_arguments(ARG "" "OUTPUT" "SOURCES;LINK;PRIVATE_LINK;HEADERS" ${ARGN})
    add_library(${target} SHARED ${ARG_SOURCES})
    string(REGEX REPLACE "^Qx" "" short "${target}")
    add_library(Qx::${short} ALIAS ${target})
    set_target_properties(${target} PROPERTIES OUTPUT_NAME "${ARG_OUTPUT}" EXPORT_NAME "${short}"
                          INSTALL_RPATH "$ORIGIN")
    target_include_directories(${target} PUBLIC
        $<BUILD_INTERFACE:${QX_SOURCE_ROOT}>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PUBLIC ${ARG_LINK} PRIVATE ${ARG_PRIVATE_LINK})
    target_link_options(${target} PRIVATE -Wl,-z,nodelete "-Wl,--version-script=${QX_SOURCE_ROOT}/../cmake/exports.map")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${QX_SOURCE_ROOT}/../cmake/exports.map")
    set_property(GLOBAL APPEND PROPERTY QX_PUBLIC_HEADERS ${ARG_HEADERS})
    # An undefined symbol must fail this link, not the client's.
    if(NOT QX_SANITIZE)
        target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
    qx_configure_target(${target})
    if(NOT QX_INSTALL)
        return()
    endif()
    install(TARGETS ${target} EXPORT QxCudaTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
    foreach(header IN LISTS ARG_HEADERS)
        get_filename_component(folder "${header}" DIRECTORY)
        install(FILES "${QX_SOURCE_ROOT}/${header}" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/${folder}")
    endforeach()
endfunction()
