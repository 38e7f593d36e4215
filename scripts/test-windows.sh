# Sourced by scripts/test: the Windows half.  Uses its functions say, fail and run_preset, and test_packages.
windows() {
  say "windows: packages"
  need_packages g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine64 clang lld cmake ninja-build make perl ccache \
    dpkg-dev debian-archive-keyring libcli11-dev "${test_packages[@]}"
  say "windows: dependencies (built once, about 5 minutes, then cached)"
  XFER_WINDOWS_DEPS=$(scripts/windows-deps) || { fail "windows: dependencies"; return; }
  export XFER_WINDOWS_DEPS
  export XFER_WINE_FOLDER=$PWD/build/windows-wine
  trap 'scripts/wine-session stop' EXIT
  scripts/wine-session start
  run_preset windows
}
