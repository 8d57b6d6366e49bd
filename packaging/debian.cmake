# The Debian packages: one for each component, so that other modules of the family can depend on the
# library alone. scripts/package.sh makes and checks them.

set(debian ${CMAKE_CURRENT_SOURCE_DIR}/debian)
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library module tool)
set(CPACK_STRIP_FILES ON)
set(CPACK_SET_DESTDIR ON) # the system's settings lie outside the prefix
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Morvane maintainers <maintainers@morvane.example>" CACHE STRING
    "Maintainer of the packages")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own, the first line of its description
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Its packages come from one build, and the dependency on the library is written down below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libharnix-nogui1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${debian}/triggers)
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "support library of the transfer module's family
Log, default file names, settings check and database opener, shared by the
modules that meet on one local bus.")

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME morvane)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION net)
set(CPACK_DEBIAN_MODULE_PACKAGE_DEPENDS "libharnix-nogui1 (= ${PROJECT_VERSION}), \
morvanectl (= ${PROJECT_VERSION}), systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_MODULE_PACKAGE_RECOMMENDS "logrotate")
set(CPACK_DEBIAN_MODULE_PACKAGE_CONTROL_EXTRA
    ${debian}/conffiles ${debian}/postinst ${debian}/prerm ${debian}/postrm)
set(CPACK_DEBIAN_MODULE_DESCRIPTION "keep data records in a spool and carry them to one peer
A headless transfer module: it takes data records from other programs over a
bus of Unix-domain sockets, keeps each as a file in a spool directory, and
carries the spool to one remote peer, over TCP as a stream of records or over
UDP with a reliable file transfer of its own.

A systemd service runs one module for each settings file.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME morvanectl)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libharnix-nogui1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOL_PACKAGE_SUGGESTS "bash-completion")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "operate transfer modules and play their other ends
The operator's tool of the transfer module: it is an administration server on
the local bus, sends files as records, and takes records as the TCP peer.")

# What every Debian package documents.
foreach(component LIBRARY MODULE TOOL)
    string(TOLOWER ${component} name)
    set(folder ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME})
    install(FILES debian/copyright DESTINATION ${folder} COMPONENT ${name})
    install_compressed(debian/changelog changelog ${folder} ${name})
endforeach()

include(CPack)
