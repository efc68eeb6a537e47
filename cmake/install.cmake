# What goes onto a router. With the prefix /usr, as OpenWrt's build sets it, the settings and the
# scripts land in /etc; DESTDIR puts the whole in a staging directory.
include(GNUInstallDirs)

install(TARGETS vantrelled DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS vantrelle-convert DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS files/usr/sbin/vantrelle files/usr/sbin/vantrelle-lists
    DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES files/etc/config/vantrelle
    DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/config
    PERMISSIONS OWNER_READ OWNER_WRITE)
install(PROGRAMS files/etc/init.d/vantrelle
    DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d)
install(PROGRAMS files/etc/uci-defaults/90_vantrelle
    DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/uci-defaults)
install(FILES files/usr/share/rpcd/acl.d/vantrelle.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/rpcd/acl.d)
