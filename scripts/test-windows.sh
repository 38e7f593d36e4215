# Sourced by scripts/test: the Windows half.  Uses its functions say, check and run_preset.
windows() {
  say "windows: packages"
  need_packages g++-mingw-w64-x86-64-posix libz-mingw-w64-dev wine64 clang lld cmake ninja-build make perl python3 openssl \
    ccache dpkg-dev debian-archive-keyring libasio-dev libcli11-dev googletest nginx-light apache2-bin lighttpd squid tinyproxy
  say "windows: dependencies (built once, about 5 minutes, then cached)"
  XFER_WINDOWS_DEPS=$(scripts/windows-deps) || { failed=$((failed + 1)); say "windows: no dependencies"; return; }
  export XFER_WINDOWS_DEPS
  export XFER_WINE_FOLDER=$PWD/build/windows-wine
  mkdir -p build
  trap 'scripts/wine-session stop' EXIT
  scripts/wine-session start
  run_preset windows || { failed=$((failed + 1)); say "windows: failed"; }
}
