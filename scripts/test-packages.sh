# Sourced by scripts/test: the release packages.  Uses its functions say, fail and check.
packages() {
  local work=$PWD/build/packages-test folder place=tests/package/release/release_test.py
  say "packages: packages"
  need_packages g++ clang lld unzip wine64 cmake make ninja-build pkg-config libcurl4-openssl-dev python3 mmdebstrap \
    debian-archive-keyring
  # The bare system is made, and changed, by root.
  local as_root=()
  [ "$(id -u)" -eq 0 ] || as_root=(sudo)
  "${as_root[@]}" rm -rf "$work"
  mkdir -p "$work"

  # In folders of different names and depths, and one after the other, so at different times.
  for folder in "$work/one" "$work/another/and deeper"; do
    mkdir -p "$folder"
    tar -c --exclude=./build --exclude=./.git . | tar -x -C "$folder"
    check "packages: built in ${folder#"$work/"}" "$folder/scripts/package" || return 0
  done
  local built=$work/one/build/packages
  check "packages: two builds give the same bytes" \
    python3 $place same --packages "$built" --other "$work/another/and deeper/build/packages" --work "$work/same"
  check "packages: contents, notices and bill of materials" \
    python3 $place contents --packages "$built" --built-in "$work" --work "$work/contents"
  check "packages: the archive works in any folder" \
    python3 $place archive --packages "$built" --work "$work/archive"

  export XFER_WINE_FOLDER=$PWD/build/windows-wine
  trap 'scripts/wine-session stop' EXIT
  scripts/wine-session start
  check "packages: the archive for Windows, linked by Microsoft's ABI and by MinGW" \
    python3 $place microsoft --packages "$built" --work "$work/microsoft" --emulator scripts/wine-run \
    --system-libraries /usr/x86_64-w64-mingw32/lib --toolchain cmake/mingw-w64-x86_64.cmake \
    --dependencies "$(scripts/windows-deps)"

  say "packages: a bare Debian 12 (mmdebstrap)"
  local system=$work/system mirror
  mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Component: main' 'Codename: bookworm')
  "${as_root[@]}" mmdebstrap --quiet --variant=apt bookworm "$system" "${mirror%%$'\n'*}" >"$work/system.log" 2>&1 ||
    { fail "packages: bare system" "$work/system.log"; return 0; }
  check "packages: installed, used and removed in a bare system" "${as_root[@]}" \
    python3 $place debian --packages "$built" --root "$system" --work "$work/debian"
  "${as_root[@]}" rm -rf "$system"
}
