# Runs at installation, with the final CMAKE_INSTALL_PREFIX. `source`, `work`, `libdir`, `includedir` and `version` come
# from CMakeLists.txt. file(INSTALL) puts DESTDIR before every path.

configure_file("${source}/mivo.pc.in" "${work}/mivo.pc" @ONLY)
file(INSTALL "${work}/mivo.pc" DESTINATION "${CMAKE_INSTALL_PREFIX}/${libdir}/pkgconfig")
