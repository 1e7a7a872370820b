# What `cmake --install` and the .deb (scripts/package, CPack) hold beside
# the programs and libveltnam: the systemd units, the environment files, the
# logrotate snippet; and the package's description and dependencies.
include(GNUInstallDirs)

set(VELT_UNIT_DIR lib/systemd/system CACHE STRING "Where the systemd units are installed, under the prefix")
install(FILES deploy/veltd.service deploy/tolkvaskd.service deploy/veltctl-metrics.service
              deploy/veltctl-metrics.timer
        DESTINATION ${VELT_UNIT_DIR})
# The configuration lives in /etc whatever the prefix, as the units expect
# it (install into a scratch root with DESTDIR).
set(VELT_SYSCONF_DIR /etc CACHE PATH "Where the environment files and the logrotate snippet are installed")
set(CPACK_WARN_ON_ABSOLUTE_INSTALL_DESTINATION OFF)
install(FILES deploy/veltd.env deploy/tolkvaskd.env DESTINATION ${VELT_SYSCONF_DIR}/velt)
install(FILES deploy/velt.logrotate DESTINATION ${VELT_SYSCONF_DIR}/logrotate.d RENAME velt)
install(FILES README.md deploy/corosync.conf.in DESTINATION ${CMAKE_INSTALL_DOCDIR})
# The manual pages, written in troff (man/), installed as they are.
foreach(page tolkvaskd.8 veltd.8 srcctl.8 veltctl.8 veltnam.1 AggregateIP.cfg.5 libveltnam.3)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
install(FILES deploy/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME README.deploy.md)

# The group services and KOR client libraries, shared, with their headers
# (libveltnam installs itself in nam/).
install(TARGETS vx_gscl_shared vx_mc_shared LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES platform/gscl/gscl.h platform/gscl/gs_client.h platform/gscl/gs_controller.h
              platform/gscl/gs_market.h platform/gscl/gs_thread.h platform/gscl/gs_types.h
              platform/gscl/gs_utils.h platform/proto/agent_connect.h platform/sync/velt_mutex.h
              platform/sync/thread_annotations.h platform/mc/vx_mc.h platform/proto/kor_types.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velt)
foreach(pc vx_gscl vx_mc)
  configure_file(cmake/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velt)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "velt maintainers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "switch-adapter membership daemon and its node agent on corosync")
set(CPACK_PACKAGE_DESCRIPTION
    "tolkvaskd keeps per-network adapter membership groups, serves the cluster's adapter table to local\nprograms and propagates the aggregate-IP configuration; veltd gives it group services, adapter\nliveness and resources on corosync. With srcctl, veltctl, veltnam, tolkvask-refresh and libveltnam.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# The libraries the programs link, found by dpkg-shlibdeps; corosync itself
# is what veltd talks to.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "corosync (>= 3.1)")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "prometheus-node-exporter")
# Edits an operator makes to these survive an upgrade.
file(WRITE ${PROJECT_BINARY_DIR}/debian/conffiles "/etc/velt/veltd.env\n/etc/velt/tolkvaskd.env\n/etc/logrotate.d/velt\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/conffiles)
include(CPack)
