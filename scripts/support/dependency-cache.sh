# Sourced by the scripts that build a dependency from the distribution's source packages: fetches and verifies the
# sources, and keeps what was built in the user's cache.  Progress goes to stderr; stdout belongs to the caller.
#
# Needs: apt, dpkg-dev (with patch and xz-utils), the distribution's archive keyring, flock (util-linux).

cache_root=${XDG_CACHE_HOME:-$HOME/.cache}/xfer
archive_keyring=/usr/share/keyrings/debian-archive-keyring.gpg

say() { echo "$(basename "$0"): $*" >&2; }
die() { say "$*"; exit 1; }

# quietly WHAT COMMAND...: runs COMMAND with its output in a log, of which a failure shows the end.
quietly() {
  local what=$1 log=$work/log
  shift
  say "$what"
  "$@" >"$log" 2>&1 </dev/null && return
  tail -n 60 "$log" >&2
  die "failed: $what"
}

# recipe_key FILE...: a short hash of what decides how the result looks, for the name of its folder.
recipe_key() { cat "$@" | sha256sum | cut -c1-12; }

# cached NAME BUILD: prints the folder NAME of the cache.  When it is not there yet, runs BUILD, which fills $staged,
# and moves that into place; $work is a scratch folder for it.  A folder in the cache is therefore complete, whenever
# the script was interrupted.  Two runs at once build once.
cached() {
  local final=$cache_root/$1 build=$2 parent
  parent=$(dirname "$final")
  mkdir -p "$parent"
  exec 9>"$parent/.lock"
  flock --nonblock 9 || { say "waiting for another run to finish"; flock 9; }
  if [ ! -d "$final" ]; then
    rm -rf "$parent"/.work.*  # of a run that was interrupted: nobody else holds the lock
    work=$(mktemp -d "$parent/.work.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    staged=$work/staged
    mkdir "$staged"
    "$build"
    mv -T "$staged" "$final"
    rm -rf "$work"
  fi
  exec 9>&-
  echo "$final"
}

# The archives that this machine takes its packages from, main component only, one address a line.
archive_addresses() {
  apt-get indextargets --no-release-info --format '$(CREATED_BY) $(COMPONENT) $(RELEASE) $(REPO_URI)' |
    awk '$1 == "Packages" && $2 == "main" && $3 !~ /-/ && !seen[$4]++ { print $4 }'
}

# apt on a configuration of its own: its lists, sources and cache lie in $work/apt, and the machine's stay as they are.
private_apt() {
  local command=$1 apt=$work/apt
  shift
  "$command" -q -o Dir::Etc::SourceList="$apt/sources.list" -o Dir::Etc::SourceParts=/dev/null \
    -o Dir::State::Lists="$apt/lists" -o Dir::Cache="$apt/cache" -o APT::Sandbox::User=root \
    -o APT::Update::Error-Mode=any -o Acquire::Retries=3 -o Acquire::Languages=none "$@"
}

# use_release CODENAME: source packages come from this release's main suite from now on.
use_release() {
  local address
  [ -r "$archive_keyring" ] || die "$archive_keyring is missing: install debian-archive-keyring"
  mkdir -p "$work/apt/lists/partial" "$work/apt/cache/archives/partial"
  for address in $(archive_addresses); do
    say "reading the source index of $1"
    echo "deb-src [signed-by=$archive_keyring] $address $1 main" >"$work/apt/sources.list"
    private_apt apt-get update >"$work/log" 2>&1 && return
    tail -n 5 "$work/log" >&2
  done
  die "no archive that this machine is configured for has the source index of $1"
}

# unpack_source PACKAGE VERSION: verifies, unpacks and patches the package into $work/PACKAGE.  VERSION is the upstream
# version or its beginning ("3.5" for any 3.5.x): the distribution's own revisions come and go.
unpack_source() {
  local package=$1 wanted=$2 version
  version=$(private_apt apt-cache showsrc --only-source "$package" | sed -n 's/^Version: //p' |
    awk -v wanted="$wanted" '{ upstream = $0; sub(/^[0-9]+:/, "", upstream) }
      index(upstream, wanted) == 1 && substr(upstream, length(wanted) + 1, 1) ~ /[-.+~]/' | sort -V | tail -n 1)
  [ -n "$version" ] || die "the archive has no $package $wanted any more: update the version in this script"
  mkdir "$work/fetch"
  cd "$work/fetch"
  quietly "fetching $package $version" private_apt apt-get source "$package=$version"
  mv "$work/fetch/"*/ "$work/$package"
  cd "$work"
  rm -rf "$work/fetch"
}
