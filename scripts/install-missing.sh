# Sourced by ensure-deps.sh and ensure-bench-deps.sh.
#   install_missing PACKAGE...
# Installs the Debian packages named (none: nothing to do) with apt-get, through sudo unless run
# as root; elsewhere names them and fails.
install_missing() {
  [ $# -gt 0 ] || return 0
  if [ "$(uname)" != Linux ] || ! command -v apt-get >/dev/null 2>&1; then
    echo "missing: $* (install them with your package manager)" >&2
    exit 1
  fi
  local sudo=""
  [ "$(id -u)" = 0 ] || sudo="sudo"
  echo "installing: $*"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "$@"
}
