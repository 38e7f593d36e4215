# Sourced: installs the packages that a script needs.

# need_packages NAME...: installs those that are missing; says so when there are any.
need_packages() {
  local name missing=() as_root=()
  for name in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" = installed ] || missing+=("$name")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  printf '== installing %s\n' "${missing[*]}" >&2
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -o DPkg::Lock::Timeout=600)
  "${apt[@]}" update >&2
  "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >&2
}
