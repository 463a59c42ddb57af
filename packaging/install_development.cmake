# Runs at installation, with CMAKE_INSTALL_PREFIX as it is then. `source`, `work`, `libdir`, `includedir` and
# `version` come from CMakeLists.txt. file(INSTALL) puts DESTDIR before every path.

configure_file("${source}/mivo.pc.in" "${work}/mivo.pc" @ONLY)
file(INSTALL "${work}/mivo.pc" DESTINATION "${CMAKE_INSTALL_PREFIX}/${libdir}/pkgconfig")
