# What all Debian packages of the tree have in common. Before it is included, `package` has to be the
# package's name, which is that of its installation component too, and `packaging` the folder of its
# copyright, lintian-overrides and scripts. Afterwards: set what is its own, then include(CPack).
set(documents usr/share/doc/${package})
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The changelog, one for the whole tree, knows how often this version has been packaged.
set(changelog ${CMAKE_CURRENT_LIST_DIR}/changelog)
file(STRINGS ${changelog} newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^([a-z-]+) \\(${PROJECT_VERSION}-([0-9]+)\\)")
  message(FATAL_ERROR "packaging/changelog does not begin with version ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
if(NOT package STREQUAL CMAKE_MATCH_1)
  set(CPACK_DEBIAN_PACKAGE_SOURCE ${CMAKE_MATCH_1})
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${changelog})

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_CMAKE_PROJECTS ${CMAKE_BINARY_DIR} ${CMAKE_PROJECT_NAME} ${package} /)
set(CPACK_PACKAGE_NAME ${package})
set(CPACK_PACKAGE_VENDOR Tarvo)
set(CPACK_PACKAGE_CONTACT "Tarvo Fan Control <fan-control@tarvo.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/stage.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/repack.cmake)
set(CPACK_PACKAGING_FOLDER ${packaging}) # for stage.cmake
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# dpkg-shlibdeps finds the package and the version of each library; those of a cross compiler it has to
# be led to.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS)
if(CMAKE_CROSSCOMPILING)
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libc.so.6
                  OUTPUT_VARIABLE libc OUTPUT_STRIP_TRAILING_WHITESPACE)
  cmake_path(GET libc PARENT_PATH CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS)
endif()
