# Sourced: the environment in which the project runs Wine.
wine_programs=
for folder in /usr/lib/wine /usr/lib/x86_64-linux-gnu/wine /opt/wine-stable/bin; do
  if [ -x "$folder/wine64" ]; then
    wine_programs=$folder
    break
  fi
done
[ -n "$wine_programs" ] || { echo "wine64 was not found: install the package wine64" >&2; exit 127; }

export WINEPREFIX=${XFER_WINEPREFIX:-${XDG_CACHE_HOME:-$HOME/.cache}/xfer/wine}
export WINESERVER=$wine_programs/wineserver
# File names beyond ASCII need a UTF-8 locale.
export LC_ALL=C.UTF-8
# Wine's debugger would swallow a crash, and the program would seem to have ended well.  The other two are offers to
# download what no program here needs.
export WINEDLLOVERRIDES='winedbg.exe=d;mscoree=;mshtml='
export WINEDEBUG=${WINEDEBUG:--all}
mkdir -p "$(dirname "$WINEPREFIX")"
