# shellcheck shell=bash
# Sourced by the setup scripts: one way to install what is missing.

# nuv_apt_install LABEL PACKAGE...: installs the packages quietly, as root or through sudo,
# saying once which ones under LABEL.
nuv_apt_install() {
  local label=$1 sudo=""
  shift
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "$label: installing $*"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "$@" >/dev/null
}
