# The layering rule as a configure-time fact: the platform (its sources and its public headers)
# never includes a header of the message service module. The module sees only the platform's
# public headers because the platform's source folder is not on its include path.
function(orvale_check_layers root)
    file(GLOB_RECURSE platform_files
        ${root}/platform/*.h ${root}/platform/*.cpp
        ${root}/include/connector/core.h ${root}/include/connector/future.h
        ${root}/include/connector/bayeux/*.h ${root}/include/connector/common/*.h
        ${root}/include/connector/log/*.h ${root}/include/connector/reactive_streams/*.h)
    foreach(file IN LISTS platform_files)
        file(STRINGS ${file} hits REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]connector/message_service")
        if(hits)
            file(RELATIVE_PATH shown ${root} ${file})
            message(FATAL_ERROR "layering: the platform file ${shown} includes the module: ${hits}")
        endif()
    endforeach()
endfunction()
