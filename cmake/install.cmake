# The layout of the installed files. The systemd units and the Debian package rely on these paths.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Where to install" FORCE)
endif()
include(GNUInstallDirs)
set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(library lib/orvane-se) # not lib/<architecture>, because the folder contains programs, not libraries
set(bundle ${library}/OrvaneSE.systemextension/Contents)

# The installed extension must filter with netfilter or fail to start, never fall back to the proxy.
set(ORVANE_FLOW_SOURCE "\n\t\t<key>OrvaneFlowSource</key>\n\t\t<string>netfilter</string>")
configure_file(${PROJECT_SOURCE_DIR}/resources/linux/Info.plist.in ${PROJECT_BINARY_DIR}/install/Info.plist @ONLY)
unset(ORVANE_FLOW_SOURCE)
file(CREATE_LINK /etc/orvane-se/Browsers.plist ${PROJECT_BINARY_DIR}/install/Browsers.plist SYMBOLIC)

# The target "programs" builds everything that is installed.
add_custom_target(programs DEPENDS OrvaneSE orvanectl orvane-fetcher)
install(TARGETS OrvaneSE DESTINATION ${bundle}/Linux)
install(FILES ${PROJECT_BINARY_DIR}/install/Info.plist DESTINATION ${bundle})
install(FILES ${PROJECT_BINARY_DIR}/install/Browsers.plist DESTINATION ${bundle}/Resources)
install(FILES ${PROJECT_SOURCE_DIR}/resources/linux/Browsers.plist DESTINATION /etc/orvane-se)
install(PROGRAMS ${packaging}/remove-rules DESTINATION ${library})
install(TARGETS orvanectl)
install(TARGETS orvane-fetcher DESTINATION ${library})

# In Debian 12, systemd units of packages are in /lib, not in /usr/lib.
install(FILES ${packaging}/systemd/orvane-se.service ${packaging}/systemd/orvane-keeper.service
              ${packaging}/systemd/orvane-fetcher.service
        DESTINATION /lib/systemd/system)
install(FILES ${packaging}/systemd/orvane-se.sysusers DESTINATION lib/sysusers.d RENAME orvane-se.conf)
install(FILES ${packaging}/systemd/orvane-se.tmpfiles DESTINATION lib/tmpfiles.d RENAME orvane-se.conf)
install(FILES ${packaging}/legacy-iptables.conf ${PROJECT_SOURCE_DIR}/resources/monitoring/orvane-se.rules.yml
              ${PROJECT_SOURCE_DIR}/resources/monitoring/orvane-se-dashboard.json ${packaging}/ansible/orvane-se.yml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/orvane-se/examples)
install(FILES ${packaging}/lists.d/README DESTINATION /etc/orvane-se/lists.d)

set(companion ${PROJECT_SOURCE_DIR}/companion)
install(FILES ${companion}/man/orvanectl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${companion}/man/orvane-list.5 ${companion}/man/orvane-site.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES ${companion}/man/orvane-se.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
set(share ${CMAKE_INSTALL_DATADIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/resources/sites DESTINATION ${share}/orvane-se FILES_MATCHING PATTERN *.site)
install(FILES ${companion}/completions/orvanectl.bash DESTINATION ${share}/bash-completion/completions RENAME orvanectl)
install(FILES ${companion}/completions/orvanectl.zsh DESTINATION ${share}/zsh/vendor-completions RENAME _orvanectl)
install(FILES ${companion}/completions/orvanectl.fish DESTINATION ${share}/fish/vendor_completions.d)
