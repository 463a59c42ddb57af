# Runs at installation, with the final CMAKE_INSTALL_PREFIX. `source` is the folder of this file, `work` is a folder for
# generated files. file(INSTALL) puts DESTDIR before every path.

set(etc "${CMAKE_INSTALL_PREFIX}/etc")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(etc "/etc")
endif()

# Writes one unit from mivo.service.in and installs it.
macro(install_unit file comment description identifier)
  set(UNIT_COMMENT "${comment}")
  set(UNIT_DESCRIPTION "${description}")
  set(UNIT_IDENTIFIER "${identifier}")
  configure_file("${source}/mivo.service.in" "${work}/${file}" @ONLY)
  file(INSTALL "${work}/${file}" DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
endmacro()

# Two units with the same text, because systemd does not accept one file as a unit and as a template.
install_unit(mivo.service "mivo, with the arguments that ${etc}/default/mivo holds."
  "mivo front server" "mivo")
install_unit(mivo@.service
  "One of several mivo processes that share their ports; see SEVERAL PROCESSES in mivo(8)."
  "mivo front server, process %i" "mivo-%i")

# An existing file is kept, because someone may have edited it. The package manager protects its own copy.
if(NOT EXISTS "$ENV{DESTDIR}${etc}/default/mivo")
  file(INSTALL "${source}/mivo.default" DESTINATION "${etc}/default" RENAME mivo)
endif()
file(INSTALL "${source}/mivo.sysusers" DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/sysusers.d" RENAME mivo.conf)

# Debian's zsh has a folder of its own for the completions of packages.
set(zsh_folder "site-functions")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(zsh_folder "vendor-completions")
endif()
file(INSTALL "${source}/mivo.zsh" DESTINATION "${CMAKE_INSTALL_PREFIX}/share/zsh/${zsh_folder}" RENAME _mivo)
