# Run by `cmake --install`, which alone knows the prefix in the end.
#
# The texts speak of a system-wide installation, with the prefix /usr and settings in /etc. Below
# another prefix they get its paths, and the settings lie below it too.

get_filename_component(prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)

# settings_below(result folder): where the folder etc/... lies.
function(settings_below result folder)
    if(prefix STREQUAL "/usr")
        set(${result} /${folder} PARENT_SCOPE)
    else()
        set(${result} ${prefix}/${folder} PARENT_SCOPE)
    endif()
endfunction()

# install_text(file folder name): installs the file as that name in a folder below the prefix. The
# caller's script is one of the build folder, and what it makes lies beside it.
function(install_text file folder name)
    file(READ "${file}" text)
    if(NOT prefix STREQUAL "/usr")
        string(REGEX REPLACE "/usr/(bin|share)/" "${prefix}/\\1/" text "${text}")
        string(REPLACE "/etc/morvane" "${prefix}/etc/morvane" text "${text}")
    endif()
    set(destination "${prefix}/${folder}")
    if(folder MATCHES "^etc/")
        settings_below(destination ${folder})
    endif()
    set(made "${CMAKE_CURRENT_LIST_DIR}/texts/${folder}/${name}")
    file(WRITE "${made}" "${text}")
    file(INSTALL "${made}" DESTINATION "${destination}")
    # What is removed again later; file(INSTALL) tells the scope of this function only.
    set(CMAKE_INSTALL_MANIFEST_FILES "${CMAKE_INSTALL_MANIFEST_FILES}" PARENT_SCOPE)
endfunction()

# An empty folder for the settings of the instances.
function(install_settings_folder)
    settings_below(folder etc/morvane)
    file(INSTALL DESTINATION "${folder}" TYPE DIRECTORY FILES "")
endfunction()
