# The Debian package "kivfoundry" (make deb): what is installed where, and the
# CPack DEB settings. Included after tools/. The programs' own install() rules
# sit with each tool; this file installs everything else.
#
#   /usr/lib/kivfoundry/             KivRequestProxy and KivCrashReporter, side by
#                                    side: the proxy runs the reporter from its own
#                                    folder when "InstallDir" is not set; and
#                                    kiv-start-backoff, which its unit runs
#   /usr/bin/kivctl                  the command-line client, man page kivctl(1)
#   /lib/systemd/system/             kiv-cab-directory and kiv-request-proxy units
#   /etc/kivfoundry/                 the directory's configuration (a conffile)
#   /usr/share/kivfoundry/scripts/   install-identities and cab-directory-users,
#                                    which the postinst runs
#   /usr/share/doc/kivfoundry/       README, docs/, copyright, changelog.gz
#
# The tools are packaged from the build folder as they are: `make deb` builds
# them first. "preinstall" therefore does not build everything (the tests).

set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)

set(kiv_pkg ${CMAKE_SOURCE_DIR}/packaging)
install(FILES ${kiv_pkg}/systemd/kiv-cab-directory.service ${kiv_pkg}/systemd/kiv-request-proxy.service
        DESTINATION /lib/systemd/system)
install(FILES ${CMAKE_SOURCE_DIR}/config/cab-directory.conf DESTINATION /etc/kivfoundry)
install(PROGRAMS ${CMAKE_SOURCE_DIR}/scripts/install-identities ${CMAKE_SOURCE_DIR}/scripts/cab-directory-users
        DESTINATION share/kivfoundry/scripts)
install(PROGRAMS ${kiv_pkg}/kiv-start-backoff DESTINATION lib/kivfoundry)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/config/cab-directory-users.conf
              ${kiv_pkg}/debian/copyright
        DESTINATION share/doc/kivfoundry)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs/ DESTINATION share/doc/kivfoundry/docs FILES_MATCHING PATTERN "*.md")

# The changelog's latest entry names this version: a new version needs a new
# entry in packaging/debian/changelog.
file(STRINGS ${kiv_pkg}/debian/changelog kiv_changelog_top LIMIT_COUNT 1)
if(NOT kiv_changelog_top MATCHES "^kivfoundry \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog: the latest entry is not version ${PROJECT_VERSION}: ${kiv_changelog_top}")
endif()
set(kiv_changelog ${CMAKE_BINARY_DIR}/packaging/changelog.gz)
add_custom_command(OUTPUT ${kiv_changelog}
  COMMAND gzip -9n < ${kiv_pkg}/debian/changelog > ${kiv_changelog}
  DEPENDS ${kiv_pkg}/debian/changelog
  COMMENT "Compressing the package's changelog")
add_custom_target(kiv_changelog DEPENDS ${kiv_changelog})
install(FILES ${kiv_changelog} DESTINATION share/doc/kivfoundry)

# kivctl(1), written from the program's own --help texts once it is built.
set(kiv_man ${CMAKE_BINARY_DIR}/packaging/kivctl.1.gz)
add_custom_command(OUTPUT ${kiv_man}
  COMMAND ${kiv_pkg}/kivctl-manpage $<TARGET_FILE:kivctl> ${PROJECT_VERSION} | gzip -9n > ${kiv_man}
  DEPENDS kivctl ${kiv_pkg}/kivctl-manpage
  COMMENT "Writing the kivctl man page")
add_custom_target(kivctl_manpage DEPENDS ${kiv_man})
install(FILES ${kiv_man} DESTINATION share/man/man1)

# The targets the package holds; `make deb` builds exactly these.
add_custom_target(kiv_package_contents)
add_dependencies(kiv_package_contents kivctl_manpage kiv_changelog)
foreach(t KivRequestProxy KivCrashReporter kivctl)
  if(TARGET ${t})
    add_dependencies(kiv_package_contents ${t})
  endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kivfoundry)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Kiv Foundry <kivfoundry@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Kiv request proxy satellite, its CAB directory service and kivctl")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "KivRequestProxy answers the Kiv media server's processes over a local NATS\n"
  "server (the CAB directory): files in chunks, zip archives, logs, version and\n"
  "configuration. The package runs the directory and the proxy as systemd\n"
  "services, the directory as the system user kiv-directory and the proxy as\n"
  "kiv, each program with its own directory user.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The libraries' packages come from dpkg-shlibdeps; the rest are named here
# (adduser and debconf for the maintainer scripts; the directory is Debian's
# nats-server program).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "nats-server, adduser, debconf (>= 0.5) | debconf-2.0")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${kiv_pkg}/debian/conffiles ${kiv_pkg}/debian/config ${kiv_pkg}/debian/templates
  ${kiv_pkg}/debian/postinst ${kiv_pkg}/debian/prerm ${kiv_pkg}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_SOURCE_IGNORE_FILES "/build[^/]*/;/\\\\.git/;/var/")
include(CPack)
