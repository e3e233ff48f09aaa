# What is installed beside the programs and their resources, and the Debian package of it all:
#   cmake --build build/release --target package      -> build/release/stashwick_3.0.0_amd64.deb
# An optional rsvg-convert renders the application's icon in fixed sizes; else panels scale it themselves.
set(packaging ${CMAKE_SOURCE_DIR}/packaging)
set(package_files ${CMAKE_BINARY_DIR}/package)
file(MAKE_DIRECTORY ${package_files})

function(install_compressed source name destination)
  set(compressed ${package_files}/${name}.gz)
  add_custom_command(OUTPUT ${compressed} DEPENDS ${source} COMMAND gzip -9nc ${source} > ${compressed} VERBATIM)
  set_property(GLOBAL APPEND PROPERTY STASHWICK_PACKAGE_FILES ${compressed})
  install(FILES ${compressed} DESTINATION ${destination})
endfunction()

find_program(RSVG_CONVERT rsvg-convert)
function(install_rendered_icon name size)
  set(rendered ${package_files}/${size}/${name}.png)
  file(MAKE_DIRECTORY ${package_files}/${size})
  add_custom_command(OUTPUT ${rendered} DEPENDS ${packaging}/icons/${name}.svg
                     COMMAND ${RSVG_CONVERT} -w ${size} -h ${size} -o ${rendered} ${packaging}/icons/${name}.svg)
  set_property(GLOBAL APPEND PROPERTY STASHWICK_PACKAGE_FILES ${rendered})
  install(FILES ${rendered} DESTINATION share/icons/hicolor/${size}x${size}/apps)
endfunction()

install_compressed(${packaging}/man/stashwick-agent.1 stashwick-agent.1 share/man/man1)
install_compressed(${packaging}/man/stashwickctl.1 stashwickctl.1 share/man/man1)
install_compressed(${packaging}/debian/changelog changelog share/doc/stashwick)
install(FILES ${packaging}/debian/copyright docs/format-image.md DESTINATION share/doc/stashwick)
install(FILES ${packaging}/completions/stashwickctl.bash RENAME stashwickctl
        DESTINATION share/bash-completion/completions)
install(FILES ${packaging}/completions/_stashwickctl DESTINATION share/zsh/vendor-completions)
install(FILES ${packaging}/completions/stashwickctl.fish DESTINATION share/fish/vendor_completions.d)
install(FILES ${packaging}/com.stashwick.Agent.desktop DESTINATION share/applications)
install(FILES ${packaging}/com.stashwick.Agent.metainfo.xml DESTINATION share/metainfo)
install(FILES ${packaging}/com.stashwick.Agent.xml DESTINATION share/dbus-1/interfaces)
install(FILES ${packaging}/stashwick-agent.service DESTINATION lib/systemd/user)
install(FILES ${packaging}/icons/com.stashwick.Agent.svg DESTINATION share/icons/hicolor/scalable/apps)
install(FILES ${packaging}/icons/com.stashwick.Agent-symbolic.svg
              ${packaging}/icons/com.stashwick.Agent-busy-symbolic.svg DESTINATION share/icons/hicolor/symbolic/apps)
if(RSVG_CONVERT)
  foreach(size 16 24 32 48 64 128 256)
    install_rendered_icon(com.stashwick.Agent ${size})
  endforeach()
endif()

# The one place outside the prefix: sessions look for autostart entries nowhere else.
install(FILES ${packaging}/autostart.desktop RENAME com.stashwick.Agent.desktop DESTINATION /etc/xdg/autostart)

get_property(files GLOBAL PROPERTY STASHWICK_PACKAGE_FILES)
add_custom_target(package_files ALL DEPENDS ${files})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME stashwick)
set(CPACK_PACKAGE_VENDOR "The Stashwick developers")
set(CPACK_PACKAGE_CONTACT "The Stashwick developers <developers@stashwick.com>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "copies USB sticks into disk images as they are attached")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Mounting, restoring and the icons of a theme need these as programs, modules or data.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "fuse3, hicolor-icon-theme, libqt6svg6, rsync")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "default-dbus-session-bus | dbus-session-bus, dosfstools, fdisk, \
gnome-keyring | libkf5wallet-bin | keepassxc, libcanberra-pulse, qt6-wayland, udisks2")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Stashwick's agent sits on the status bar. When a USB stick is attached it
asks once, and copies the contents of the stick into a compressed disk image,
encrypted if wanted: now, later, never, or from now on by itself.
.
stashwickctl lists, compares, verifies, mounts, restores and thins out backups
on the command line.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${packaging}/debian/conffiles ${packaging}/debian/postinst
                                       ${packaging}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
