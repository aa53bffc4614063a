#!/usr/bin/env bash
# Installs a velanet build into a temporary prefix, builds examples/fetch
# against that prefix alone, and fetches a file from a local HTTP server
# (python3 http.server on 127.0.0.1, a free port); the fetched bytes must
# equal the served ones.
#   consume.sh cmake|pkg-config BUILD_DIR SOURCE_DIR PACKAGE
# PACKAGE is velanet or velanet-qt6. "cmake" configures the example with
# find_package (CMAKE_PREFIX_PATH=prefix); "pkg-config" compiles it with
# `pkg-config --cflags --libs PACKAGE` (PKG_CONFIG_PATH=prefix/lib/pkgconfig).
set -euo pipefail

mode=$1
build=$2
source=$3
package=$4

work=$(mktemp -d "${TMPDIR:-/tmp}/velanet-package.XXXXXX")
server_pid=
cleanup() {
  if [ -n "$server_pid" ]; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

# Installed headers: none private, and every header they include is installed.
include_root=$prefix/include/$package
[ -d "$include_root/src" ] || { echo "consume: no headers under $include_root" >&2; exit 1; }
if [ -e "$include_root/src/internal" ]; then
  echo "consume: private headers were installed" >&2
  exit 1
fi
while IFS= read -r included; do
  [ -f "$include_root/$included" ] || { echo "consume: an installed header includes $included, which is not installed" >&2; exit 1; }
done < <(cat $(find "$include_root" -name '*.h') | sed -n 's/^#include "\(.*\)"/\1/p' | sort -u)
# Side by side: every file of the Qt 6 build carries -qt6 in its path, and
# none of the Qt 5 build does, so both install into one prefix.
case "$package" in
  *-qt6) stray=$(cd "$prefix" && find . -type f -o -type l | grep -v -- -qt6 || true) ;;
  *) stray=$(cd "$prefix" && find . -type f -o -type l | grep -- -qt6 || true) ;;
esac
[ -z "$stray" ] || { echo "consume: files that would collide with the other Qt build: $stray" >&2; exit 1; }

launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher=(ccache)
fi

fetch=$work/fetch
case "$mode" in
  cmake)
    cmake_launcher=()
    [ ${#launcher[@]} -gt 0 ] && cmake_launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    cmake -S "$source/examples/fetch" -B "$work/build" -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_PREFIX_PATH="$prefix" -DVELANET_PACKAGE="$package" "${cmake_launcher[@]}" >/dev/null
    cmake --build "$work/build" >/dev/null
    # Nothing of the source tree may reach the example's compile lines.
    if grep -F -- "$source" "$work/build/compile_commands.json" 2>/dev/null | grep -v -F -- "$source/examples/fetch" >&2; then
      echo "consume: the example was compiled against the source tree" >&2
      exit 1
    fi
    cp "$work/build/fetch" "$fetch"
    ;;
  pkg-config)
    export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
    # shellcheck disable=SC2046
    "${launcher[@]}" c++ -std=c++17 -O1 -o "$fetch" "$source/examples/fetch/main.cpp" \
      $(pkg-config --cflags --libs "$package")
    case " $(pkg-config --cflags "$package") " in
      *" -I$prefix/"*) ;;
      *) echo "consume: pkg-config names no include directory in the prefix" >&2; exit 1 ;;
    esac
    export LD_LIBRARY_PATH=$prefix/lib
    ;;
  *)
    echo "consume: unknown mode $mode" >&2
    exit 2
    ;;
esac

# The example must load the installed library, not the build tree's.
lib=$(ldd "$fetch" | awk -v name="lib$package.so.1" '$1 == name { print $3 }')
case "$lib" in
  "$prefix"/*) ;;
  *) echo "consume: $fetch loads lib$package.so.1 from '$lib', not from the prefix" >&2; exit 1 ;;
esac

# A body that crosses many 1024-byte pieces and ends in a partial one.
mkdir "$work/www"
head -c 1500007 /dev/urandom >"$work/www/body.bin"
python3 -u - "$work/www" >"$work/port" 2>"$work/server.log" <<'PY' &
import functools, http.server, sys
handler = functools.partial(http.server.SimpleHTTPRequestHandler, directory=sys.argv[1])
server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
print(server.server_address[1], flush=True)
server.serve_forever()
PY
server_pid=$!
for _ in $(seq 1 200); do
  [ -s "$work/port" ] && break
  kill -0 "$server_pid" 2>/dev/null || { cat "$work/server.log" >&2; exit 1; }
  sleep 0.05
done
port=$(cat "$work/port")
[ -n "$port" ] || { echo "consume: the server did not start" >&2; exit 1; }

"$fetch" "http://127.0.0.1:$port/body.bin" "$work/out.bin"
cmp "$work/www/body.bin" "$work/out.bin"
"$fetch" "http://127.0.0.1:$port/body.bin" >"$work/stdout.bin"
cmp "$work/www/body.bin" "$work/stdout.bin"
# A missing file is an HTTP error, reported with a non-zero exit status.
if "$fetch" "http://127.0.0.1:$port/missing.bin" "$work/missing.bin" 2>/dev/null; then
  echo "consume: a 404 was taken for a success" >&2
  exit 1
fi
echo "consume ($mode, $package): $(stat -c %s "$work/out.bin") bytes fetched through the installed package"
