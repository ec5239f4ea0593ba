# Sourced by the scripts that unpack Debian packages for another machine or into a clean root.

# The release whose packages the board runs.
debian_suite=bookworm

# Prints the archives of the suite that this machine is configured for, in the form of a sources list. Prints nothing
# when it is configured for another release; mmdebstrap then takes its own default. Security updates are left out: their
# index for armhf is not always complete, and an incomplete one makes the whole installation fail.
debian_sources() {
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 2>/dev/null |
    awk -v suite="$debian_suite" '($2 == suite || $2 == suite "-updates") && $3 == "main" && !seen[$0]++ {
      print "deb", $0 }'
}

# debstrap ROOT OPTION...: mmdebstrap with the archives and the proxy of this machine.
debstrap() {
  local root=$1 mode=auto PROXY=
  shift
  [ "$(id -u)" -ne 0 ] || mode=root
  eval "$(apt-config shell PROXY Acquire::http::Proxy)"
  local -a options=(--quiet --mode="$mode" --format=directory)
  [ -z "$PROXY" ] || options+=(--aptopt="Acquire::http::Proxy \"$PROXY\"")
  local sources
  sources=$(debian_sources)
  if [ -n "$sources" ]; then
    mmdebstrap "${options[@]}" "$@" "$debian_suite" "$root" - <<<"$sources"
  else
    mmdebstrap "${options[@]}" "$@" "$debian_suite" "$root"
  fi
}
