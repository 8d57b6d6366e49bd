# Runs during `cmake --install`, because the prefix is known only then.
#
# The texts are written for the prefix /usr, with settings in /etc. Under another prefix, the settings
# are below it too, and the paths in the texts are changed.

get_filename_component(prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)

# settings_below(result folder): sets result to the path of the folder etc/... .
function(settings_below result folder)
    if(prefix STREQUAL "/usr")
        set(${result} /${folder} PARENT_SCOPE)
    else()
        set(${result} ${prefix}/${folder} PARENT_SCOPE)
    endif()
endfunction()

# install_text(file folder name): installs the file under that name in a folder below the prefix. The
# changed text is made in the build folder, beside the script that calls this.
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
    # For install_manifest.txt: file(INSTALL) sets this list in this function's scope only.
    set(CMAKE_INSTALL_MANIFEST_FILES "${CMAKE_INSTALL_MANIFEST_FILES}" PARENT_SCOPE)
endfunction()

# An empty folder for the settings of the instances.
function(install_settings_folder)
    settings_below(folder etc/morvane)
    file(INSTALL DESTINATION "${folder}" TYPE DIRECTORY FILES "")
endfunction()
