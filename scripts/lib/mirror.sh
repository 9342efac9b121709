# shellcheck shell=bash
# Sourced by the scripts that debootstrap a Debian root. The mirror is the host's own, so no
# mirror host is written in the tree and a machine behind a local mirror keeps using it.

# nuv_mirror SUITE: prints the URI, without a trailing slash, that the host's apt
# configuration fetches SUITE's packages from; fails, printing nothing, when no source has it.
# --no-release-info lists the sources even before the first apt-get update.
nuv_mirror() {
  local uri
  # shellcheck disable=SC2016  # $(...) is apt's format syntax
  uri=$(apt-get indextargets --no-release-info --format '$(REPO_URI) $(RELEASE)' \
    'Identifier: Packages' | awk -v suite="$1" '$2 == suite && !found++ { print $1 }')
  [ -n "$uri" ] || return 1
  printf '%s\n' "${uri%/}"
}
