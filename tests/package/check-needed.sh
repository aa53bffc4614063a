#!/usr/bin/env bash
# What velanet's libraries and programs load, from their dynamic sections
# (readelf -d) and the loader's resolution (ldd).
#   check-needed.sh --core LIB --widgets LIB [--headless FILE...] [--core-only FILE...]
# --core       the core library: SONAME lib<name>.so.1, no Qt Gui or Widgets, even indirectly
# --widgets    velanet-widgets: SONAME lib<name>.so.1, needs the core library
# --headless   programs that must load no Qt Gui or Widgets at all
# --core-only  programs that must not load velanet-widgets
# --headless programs must also load the core library
set -euo pipefail

needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }
soname() { readelf -d "$1" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p'; }
loaded() { ldd "$1" | awk '{ print $1 }'; }

fail=0
complain() { echo "check-needed: $*" >&2; fail=1; }

core= widgets=
headless=() core_only=()
list=
while [ $# -gt 0 ]; do
  case "$1" in
    --core) core=$2; shift 2 ;;
    --widgets) widgets=$2; shift 2 ;;
    --headless) list=headless; shift ;;
    --core-only) list=core_only; shift ;;
    *)
      case "$list" in
        headless) headless+=("$1") ;;
        core_only) core_only+=("$1") ;;
        *) echo "check-needed: unexpected argument $1" >&2; exit 2 ;;
      esac
      shift ;;
  esac
done
[ -n "$core" ] && [ -n "$widgets" ] || { echo "check-needed: --core and --widgets are required" >&2; exit 2; }

core_soname=$(soname "$core")
widgets_soname=$(soname "$widgets")
case "$core_soname" in
  libvelanet.so.1|libvelanet-qt6.so.1) ;;
  *) complain "$core: SONAME '$core_soname'" ;;
esac
case "$widgets_soname" in
  libvelanet-widgets.so.1|libvelanet-widgets-qt6.so.1) ;;
  *) complain "$widgets: SONAME '$widgets_soname'" ;;
esac

echo "$core_soname NEEDED: $(needed "$core" | tr '\n' ' ')"
echo "$widgets_soname NEEDED: $(needed "$widgets" | tr '\n' ' ')"

gui='^libQt[56](Gui|Widgets|OpenGL)'
for file in "$core" "${headless[@]}"; do
  if loaded "$file" | grep -E "$gui" >/dev/null; then
    complain "$file loads $(loaded "$file" | grep -E "$gui" | tr '\n' ' ')"
  fi
done
needed "$widgets" | grep -qx "$core_soname" || complain "$widgets does not need $core_soname"
needed "$widgets" | grep -Eq '^libQt[56]Widgets' || complain "$widgets does not need Qt Widgets"
for file in "${core_only[@]}"; do
  if loaded "$file" | grep -qx "$widgets_soname"; then
    complain "$file loads $widgets_soname"
  fi
done
# The benchmark clients are real users of the core: they must load it. (Test
# programs that only run velafetch or the fixtures need no velanet at all.)
for file in "${headless[@]}"; do
  loaded "$file" | grep -qx "$core_soname" || complain "$file does not load $core_soname"
done
echo "checked ${#headless[@]} headless and ${#core_only[@]} core-only programs"
exit $fail
