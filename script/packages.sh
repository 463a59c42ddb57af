# The other scripts source this file. need_packages installs the Debian packages that are missing. build configures and
# builds.

# need_packages PACKAGE...: makes sure that all packages are installed. Asks dpkg first, because apt-get is slow even
# when no package is missing.
need_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  echo "Installing: ${missing[*]}"
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
    "${missing[@]}" >/dev/null
}

# need_packages_without SERVICE... -- PACKAGE...: does the same as need_packages. Then it stops and disables each
# SERVICE that came with the packages. A service that was there before is left as it is.
need_packages_without() {
  local new_services=() as_root=()
  for (( ; $# > 0; )); do
    local service=$1
    shift
    [ "$service" = -- ] && break
    [ -d /run/systemd/system ] || continue
    systemctl cat "$service" >/dev/null 2>&1 || new_services+=("$service")
  done
  need_packages "$@"
  [ ${#new_services[@]} -gt 0 ] || return 0
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" systemctl --quiet disable --now "${new_services[@]}"
}

# build PRESET [TARGET...]: configures and builds all targets, or those named. Prints the log only when this fails.
build() {
  local log
  log=$(mktemp)
  echo "Building: $*"
  if ! { cmake --preset "$1" && cmake --build --preset "$1" ${2:+--target "${@:2}"}; } >"$log" 2>&1; then
    cat "$log"
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}
