# Sourced: the environment in which the project runs Wine, and the Wine folder that everything runs in.
#
# Needs: bash, wine64 (its programs lie in a folder of their own), flock and setarch (util-linux).
PATH=$PATH:/usr/lib/wine
command -v wine64 >/dev/null || { echo "$(basename "$0"): install the package wine64" >&2; exit 127; }

# Each thread and handle of every program costs descriptors, most of them in the one process of Wine's server: the usual
# limit of 1024 is met by a few dozen downloads at once, and then threads do not start.
descriptors=$(ulimit -H -n)
[ "$descriptors" != unlimited ] && [ "$descriptors" -lt 65536 ] || descriptors=65536
ulimit -S -n "$descriptors"

# File names beyond ASCII need a UTF-8 locale.
export LC_ALL=C.UTF-8
# Wine's debugger would swallow a crash, and the program would seem to have ended well.  The other two are offers to
# download what no program here needs.
export WINEDLLOVERRIDES='winedbg.exe=d;mscoree=;mshtml='
export WINEDEBUG=${WINEDEBUG:--all}

# Wine needs a page at a fixed address.  Once in some thousand starts its loader's heap, whose place is random, lies there:
# the program then ends with 1 before it begins, without a word.  So nothing is placed at random, where that is allowed.
wine=(wine64)
if setarch --addr-no-randomize true 2>/dev/null; then wine=(setarch --addr-no-randomize wine64); fi

# XFER_WINE_FOLDER is the folder that Wine runs in, made into a Windows 10 when it is new.  Sessions and programs in
# different folders do not know of each other.
WINEPREFIX=$(realpath -m "${XFER_WINE_FOLDER:-${XDG_CACHE_HOME:-$HOME/.cache}/xfer/wine}")
export WINEPREFIX

# The streams are on the null device because Wine's services outlive the program that starts them and would keep its
# pipes open.
if [ ! -e "$WINEPREFIX/.windows-10" ]; then
  mkdir -p "$WINEPREFIX"
  (
    flock 8
    [ -e "$WINEPREFIX/.windows-10" ] && exit
    "${wine[@]}" wineboot --init && "${wine[@]}" reg add 'HKCU\Software\Wine' /v Version /d win10 /f && wineserver -w &&
      touch "$WINEPREFIX/.windows-10"
  ) 8>"$WINEPREFIX/.lock" </dev/null >/dev/null 2>&1 || {
    echo "$(basename "$0"): Wine could not set up $WINEPREFIX" >&2
    exit 1
  }
fi
