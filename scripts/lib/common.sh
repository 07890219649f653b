# Shell steps shared by scripts/test and scripts/demo. The caller defines
# die() and runs from the source tree's top.

# Installs those of the Debian packages named in the arguments that are
# missing, with apt-get, as root (through sudo when run as another user).
install_missing_packages() {
  command -v dpkg-query >/dev/null || die "dpkg-query not found: this script expects Debian 12"
  local missing=() package
  for package in "$@"; do
    if [[ "$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)" != "install ok installed" ]]; then
      missing+=("$package")
    fi
  done
  if ((${#missing[@]} == 0)); then
    echo "All $# packages are installed."
    return
  fi
  local as_root=()
  if ((EUID != 0)); then
    command -v sudo >/dev/null ||
      die "missing packages: ${missing[*]}; run as root or install sudo"
    as_root=(sudo)
  fi
  echo "Installing: ${missing[*]}"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends "${missing[@]}"
}

# Configures the build tree DIR (RelWithDebInfo unless the arguments say
# otherwise) with the remaining arguments. The generator is chosen only when
# the tree is new, so an existing tree keeps working whatever made it; a
# compiler cache is used where one is installed, and none is needed.
configure_tree() {
  local dir=$1
  shift
  local generator=() launcher=()
  [[ -f "$dir/CMakeCache.txt" ]] || generator=(-G "Unix Makefiles")
  command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  cmake -S . -B "$dir" "${generator[@]}" "${launcher[@]}" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@"
}
